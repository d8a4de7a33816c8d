#include "qv/Port.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <thread>
#include <utility>

namespace qv {

namespace {

using namespace std::chrono_literals;

constexpr auto kWriteTimeout = 5s;
constexpr auto kHangUpPause = 2ms;

struct tRate
{
    unsigned baud;
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

const tRate* findRate(unsigned baud)
{
    const auto* rate = std::ranges::find(kRates, baud, &tRate::baud);
    return rate == std::end(kRates) ? nullptr : rate;
}

std::string errorText(int error)
{
    return std::generic_category().message(error);
}

/// Only what has to be said about a serial port between two programs: bytes as they are, nothing added. Gives the
/// settings before.
termios makeRaw(int fd, const std::string& device, speed_t speed)
{
    termios settings{};
    if (tcgetattr(fd, &settings) != 0) {
        throw LineError(device + " is not a serial port: " + errorText(errno));
    }
    const termios found = settings;
    cfmakeraw(&settings);
    settings.c_iflag &= ~static_cast<tcflag_t>(IXOFF | IXANY | INPCK);
    settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | PARENB | CRTSCTS);
    settings.c_cflag |= static_cast<tcflag_t>(CLOCAL | CREAD);
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    if (cfsetispeed(&settings, speed) != 0 || cfsetospeed(&settings, speed) != 0 ||
        tcsetattr(fd, TCSANOW, &settings) != 0) {
        throw LineError("cannot set up " + device + ": " + errorText(errno));
    }
    tcflush(fd, TCIFLUSH);
    return found;
}

int pollMs(Clock::time_point deadline)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60'000));
}

} // namespace

Port Port::open(const std::string& device, unsigned baud)
{
    const auto* rate = findRate(baud);
    if (rate == nullptr) {
        throw LineError("no such rate: " + std::to_string(baud) + " bit/s (there are " + knownRates() + ")");
    }
    const int fd = ::open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        throw LineError("cannot open " + device + ": " + errorText(errno));
    }
    Port port(fd, false);
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) { // TIOCEXCL does not keep root out
        throw PortInUse("another program uses " + device);
    }
    port.mFound = makeRaw(fd, device, rate->speed);
    return port;
}

Port Port::adopt(int fd)
{
    Port port(fd, true);
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        throw LineError("cannot use descriptor " + std::to_string(fd) + ": " + errorText(errno));
    }
    return port;
}

bool Port::isKnownRate(unsigned baud)
{
    return findRate(baud) != nullptr;
}

std::string Port::knownRates()
{
    std::string text;
    for (const auto& rate : kRates) {
        text += (text.empty() ? "" : ", ") + std::to_string(rate.baud);
    }
    return text;
}

Port::Port(int fd, bool adopted)
    : mFd(fd)
    , mAdopted(adopted)
{}

Port::Port(Port&& other) noexcept
    : mFd(std::exchange(other.mFd, -1))
    , mAdopted(other.mAdopted)
    , mFound(std::exchange(other.mFound, {}))
{}

Port::~Port()
{
    if (mFound) {
        tcsetattr(mFd, TCSADRAIN, &*mFound); // what was sent goes out at its rate
    }
    if (mFd >= 0) {
        ::close(mFd);
    }
}

bool Port::wait(short events, Clock::time_point deadline)
{
    for (;;) {
        pollfd entry{mFd, events, 0};
        const int count = ::poll(&entry, 1, pollMs(deadline));
        if (count > 0) {
            return true;
        }
        if (count < 0 && errno != EINTR) {
            throw LineError("waiting on the line failed: " + errorText(errno));
        }
        if (Clock::now() >= deadline) {
            return false;
        }
    }
}

void Port::write(ByteView bytes)
{
    const auto deadline = Clock::now() + kWriteTimeout;
    while (!bytes.empty()) {
        const auto count = ::write(mFd, bytes.data(), bytes.size());
        if (count > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(count));
        } else if (count < 0 && errno == EIO && mAdopted) {
            return; // nobody at the other end: as on a line without a cable, the bytes are gone
        } else if (count < 0 && errno != EAGAIN && errno != EINTR) {
            throw LineError("sending failed: " + errorText(errno));
        } else if (!wait(POLLOUT, deadline)) {
            throw LineError("the line takes no bytes");
        }
    }
}

Bytes Port::read(Clock::time_point deadline)
{
    std::array<std::uint8_t, 4096> buffer{};
    for (;;) {
        if (!wait(POLLIN, deadline)) {
            return {};
        }
        const auto count = ::read(mFd, buffer.data(), buffer.size());
        if (count > 0) {
            return {buffer.begin(), buffer.begin() + count};
        }
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;
        }
        if (!mAdopted) {
            throw LineError(count == 0 ? "the line hung up" : "receiving failed: " + errorText(errno));
        }
        if (Clock::now() >= deadline) {
            return {};
        }
        std::this_thread::sleep_for(kHangUpPause); // a closed other end reports readiness for ever
    }
}

} // namespace qv
