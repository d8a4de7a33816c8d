#include "link/SerialPhy.h"

#include "link/SManager.h"
#include "link/SerialException.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <iterator>
#include <limits>
#include <system_error>
#include <utility>

namespace {

const bool sRegistered = SManager::registerSerialBackend(new SerialPhy);

struct tRate
{
    unsigned int baud;
    speed_t speed;
};

constexpr tRate kRates[] = {
    {50, B50},           {75, B75},           {110, B110},         {134, B134},         {150, B150},
    {200, B200},         {300, B300},         {600, B600},         {1200, B1200},       {1800, B1800},
    {2400, B2400},       {4800, B4800},       {9600, B9600},       {19200, B19200},     {38400, B38400},
    {57600, B57600},     {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
    {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000}, {1500000, B1500000},
    {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000}, {3500000, B3500000}, {4000000, B4000000},
};

SerialException failure(const char* what)
{
    return SerialException(what + std::generic_category().message(errno));
}

/// Sleeps the whole time: a signal does not cut it short.
void pauseNs(std::uint64_t ns)
{
    timespec left{static_cast<time_t>(ns / 1'000'000'000U), static_cast<long>(ns % 1'000'000'000U)};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

/// Pauses what is left of a time-out that began at `start`.
void waitOut(std::chrono::steady_clock::time_point start, int timeoutMs)
{
    const auto left = std::chrono::milliseconds(timeoutMs) - (std::chrono::steady_clock::now() - start);
    if (left.count() > 0)
        pauseNs(static_cast<std::uint64_t>(std::chrono::nanoseconds(left).count()));
}

/// Seven characters of ten bits, in nanoseconds; what does not fit into 32 bits is the largest that does.
std::uint32_t settleDelayNs(unsigned int baud)
{
    const double ns = 1'000'000'000.0 / baud * 10.0 * 7.0;
    constexpr std::uint32_t kMax = std::numeric_limits<std::uint32_t>::max();
    return ns < kMax ? static_cast<std::uint32_t>(ns) : kMax;
}

/// Sets `set` and clears the rest of `mask`.
void change(tcflag_t& flags, tcflag_t mask, tcflag_t set)
{
    flags = (flags & ~mask) | set;
}

void setFrameFormat(termios& tio, DataBitsE dataBits, ParityE parity, StopBitsE stopBits)
{
    change(tio.c_cflag, CSIZE, dataBits == 8 ? CS8 : dataBits == 7 ? CS7 : dataBits == 6 ? CS6 : CS5);
    if (stopBits == eStopBits1 || stopBits == eStopBits2)
        change(tio.c_cflag, CSTOPB, stopBits == eStopBits2 ? CSTOPB : 0);
    if (parity == eParityNone || parity == eParityOdd || parity == eParityEven)
        change(tio.c_cflag, PARENB | PARODD,
               parity == eParityNone   ? 0
               : parity == eParityEven ? PARENB
                                       : PARENB | PARODD);
}

void setFlowControl(termios& tio, FlowControlE flowCtrl)
{
    if (flowCtrl == eFlowControlSoftware)
        change(tio.c_iflag, INPCK | ISTRIP | IXON | IXOFF, IXON | IXOFF);
    else
        change(tio.c_iflag, INPCK | ISTRIP | IXON | IXOFF | IXANY, 0);
    change(tio.c_cflag, CRTSCTS, flowCtrl == eFlowControlHardware ? CRTSCTS : 0);
}

} // namespace

SerialPhy::SerialPhy() = default;

SerialPhy::~SerialPhy()
{
    close();
}

int SerialPhy::init(tInitParams* params)
{
    const auto baud = static_cast<unsigned int>(params->baudrate);
    mDataBits = params->dataBits;
    mParity = params->parity;
    mStopBits = params->stopBits;
    mFlowCtrl = params->flowCtrl;
    mReadSettleNs = settleDelayNs(baud);
    close();
    mDevice = params->device;
    if (!mDevice.empty())
        open();
    const int result = configurePort(baud);
    mOpen = true;
    return result;
}

void SerialPhy::open()
{
    if (mOpen || mFd != -1)
        throw SerialException("SerialPhy::open: is already opened");
    mFd = ::open(mDevice.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (mFd < 0)
        throw failure("SerialPhy::open: failed: ");
    flock(mFd, LOCK_EX | LOCK_NB); // for tools that ask whether the port is in use; ours it is in any case
}

void SerialPhy::close()
{
    if (mFd != -1)
        ::close(mFd);
    mFd = -1;
    mOpen = false;
    mHungUp = false;
}

int SerialPhy::configurePort(unsigned int baud)
{
    if (mFd == -1)
        throw SerialException("SerialPhy::configurePort: port isn't open");
    termios tio{};
    if (tcgetattr(mFd, &tio) != 0)
        return 0;
    change(tio.c_iflag, IGNBRK | INLCR | IGNCR | ICRNL, 0);
    change(tio.c_oflag, OPOST, 0);
    change(tio.c_cflag, CLOCAL | CREAD, CLOCAL | CREAD);
    change(tio.c_lflag, ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL | IEXTEN, 0);
    cfsetispeed(&tio, toBaudrate(baud));
    cfsetospeed(&tio, toBaudrate(baud));
    setFrameFormat(tio, mDataBits, mParity, mStopBits);
    setFlowControl(tio, mFlowCtrl);
    tio.c_cc[VTIME] = 0;
    tio.c_cc[VMIN] = 0;
    return tcsetattr(mFd, TCSANOW, &tio);
}

unsigned int SerialPhy::toBaudrate(unsigned int baud) const
{
    const auto* rate = std::ranges::find(kRates, baud, &tRate::baud);
    return rate == std::end(kRates) ? B0 : rate->speed;
}

int SerialPhy::readBlocking(unsigned char* buf, unsigned int len, int timeoutMs)
{
    if (!mOpen)
        throw SerialException("SerialPhy::read: port not opened");
    const auto start = std::chrono::steady_clock::now();
    pollfd line{mFd, POLLIN, 0};
    const int ready = poll(&line, 1, timeoutMs);
    if (ready < 0 && errno == EINTR)
        return 0;
    if (ready < 0) {
        const SerialException error = failure("SerialPhy::read: poll failed: ");
        waitOut(start, timeoutMs); // the caller tries again at once
        throw error;
    }
    if (ready == 0) {
        mHungUp = false;
        return 0;
    }
    if (mReadSettleNs != 0)
        pauseNs(mReadSettleNs);
    const auto count = static_cast<int>(read(mFd, buf, len));
    const bool hungUp = count <= 0 && (line.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
    if (std::exchange(mHungUp, hungUp) && hungUp)
        giveUp();
    if (hungUp)
        waitOut(start, timeoutMs);
    return count;
}

/// The reply thread may be writing: the descriptor stays until init, which runs when that thread has ended. Closed here
/// its number could be given to a bus connection, and the rest of a reply with it.
void SerialPhy::giveUp()
{
    mOpen = false;
    throw SerialException("SerialPhy::read: line hung up");
}

int SerialPhy::writeBlocking(const unsigned char* buf, unsigned int len, int timeoutMs)
{
    if (!mOpen)
        throw SerialException("SerialPhy::write: port not opened");
    unsigned int written = 0;
    while (written < len) {
        pollfd line{mFd, POLLOUT, 0};
        const int ready = poll(&line, 1, timeoutMs);
        if (ready < 0 && errno != EINTR)
            throw failure("SerialPhy::write: poll failed: ");
        if (ready == 0)
            break;
        if (ready < 0)
            continue;
        const ssize_t count = write(mFd, buf + written, len - written);
        if (count < 0 && errno != EINTR)
            throw failure("SerialPhy::write: strange write failure: ");
        if (count > 0)
            written += static_cast<unsigned int>(count);
    }
    return static_cast<int>(written);
}
