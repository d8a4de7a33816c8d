#include "link/SManager.h"
#include "link/SerialException.h"
#include "link/SerialPhy.h"
#include "tests/line/PtyLine.h"
#include "tests/support/Sleeper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <optional>

namespace {

using namespace std::chrono_literals;
using tBytes = PtyLine::tBytes;

constexpr tcflag_t kParityBits = PARENB | PARODD;
constexpr tcflag_t kFlowInput = INPCK | ISTRIP | IXON | IXOFF | IXANY;

tBytes everyByte()
{
    tBytes bytes(256);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
    return bytes;
}

/// The serial port on a pseudo terminal.
class SerialPhyLine : public testing::Test
{
protected:
    int open(const std::string& device, unsigned int baud = 115200, ParityE parity = eParityNone,
             StopBitsE stopBits = eStopBits1, FlowControlE flowCtrl = eFlowControlNone, DataBitsE dataBits = eDataBits8)
    {
        tInitParams params{device.c_str(), baud, dataBits, parity, stopBits, flowCtrl};
        return port.init(&params);
    }
    int open(unsigned int baud = 115200) { return open(line.device(), baud); }

    tBytes read(unsigned int most = 64, int timeoutMs = 10'000)
    {
        tBytes bytes(most);
        mResult = port.readBlocking(bytes.data(), most, timeoutMs);
        bytes.resize(mResult > 0 ? static_cast<std::size_t>(mResult) : 0);
        return bytes;
    }
    int write(const tBytes& bytes, int timeoutMs = 10'000)
    {
        return port.writeBlocking(bytes.data(), static_cast<unsigned int>(bytes.size()), timeoutMs);
    }
    template <class Action>
    static std::string failureOf(Action action)
    {
        try {
            action();
        } catch (const SerialException& e) {
            return e.what();
        }
        return "no failure";
    }

    /// The port's descriptors of this device: the line's own end holds one, too.
    static std::vector<int> descriptorsOf(const std::string& device)
    {
        std::vector<int> found;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            if (std::filesystem::read_symlink(entry.path(), error) == device)
                found.push_back(std::stoi(entry.path().filename()));
        }
        return found;
    }

    PtyLine line;
    SerialPhy port;
    int mResult = 0;
};

/// A scratch folder, gone with the test.
class SerialPhyNoTerminal : public SerialPhyLine
{
protected:
    SerialPhyNoTerminal()
    {
        char path[] = "/tmp/vorlan-line-XXXXXX"; // mkdtemp fills in the last six
        mFolder = mkdtemp(path);
    }
    ~SerialPhyNoTerminal() override { std::filesystem::remove_all(mFolder); }

    std::string mFolder;
};

/// The attributes of the line before and after init.
class SerialPhyLineAttributes : public SerialPhyLine
{
protected:
    /// Sets every flag of the line, or clears it, as far as a pseudo terminal lets it be.
    void lineHas(bool set)
    {
        auto attributes = line.attributes();
        attributes.c_iflag = set ? IGNBRK | BRKINT | IGNPAR | PARMRK | INPCK | ISTRIP | INLCR | IGNCR | ICRNL | IUCLC |
                                       IXON | IXANY | IXOFF | IMAXBEL | IUTF8
                                 : 0;
        attributes.c_oflag = set ? OPOST | OLCUC | ONLCR | OCRNL | ONOCR | ONLRET | OFILL | OFDEL : 0;
        attributes.c_lflag =
            set ? ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL | NOFLSH | TOSTOP | ECHOCTL | ECHOPRT | ECHOKE | IEXTEN
                : 0;
        attributes.c_cflag = CS8 | CREAD | B38400 | (set ? CSTOPB | PARODD | HUPCL | CLOCAL | CRTSCTS : 0);
        attributes.c_cc[VMIN] = set ? 7 : 1;
        attributes.c_cc[VTIME] = set ? 9 : 1;
        line.setAttributes(attributes);
        mExpected = line.attributes();
        ASSERT_EQ(mExpected.c_iflag, attributes.c_iflag);
        ASSERT_EQ(mExpected.c_lflag, attributes.c_lflag);
        ASSERT_EQ(mExpected.c_cflag, attributes.c_cflag);
    }
    void expectInput(tcflag_t cleared, tcflag_t set) { mExpected.c_iflag = (mExpected.c_iflag & ~cleared) | set; }
    void expectControl(tcflag_t cleared, tcflag_t set) { mExpected.c_cflag = (mExpected.c_cflag & ~cleared) | set; }

    /// Raw mode; what is not named here stays.
    void expectRawMode(speed_t speed)
    {
        expectInput(IGNBRK | INLCR | IGNCR | ICRNL, 0);
        expectControl(0, CLOCAL | CREAD);
        mExpected.c_oflag &= ~static_cast<tcflag_t>(OPOST);
        mExpected.c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL | IEXTEN);
        mExpected.c_cc[VMIN] = 0;
        mExpected.c_cc[VTIME] = 0;
        cfsetospeed(&mExpected, speed); // the line has one rate for both directions
    }
    void expectAttributes()
    {
        const auto got = line.attributes();
        EXPECT_EQ(got.c_iflag, mExpected.c_iflag) << std::hex << (got.c_iflag ^ mExpected.c_iflag);
        EXPECT_EQ(got.c_oflag, mExpected.c_oflag) << std::hex << (got.c_oflag ^ mExpected.c_oflag);
        EXPECT_EQ(got.c_cflag, mExpected.c_cflag) << std::hex << (got.c_cflag ^ mExpected.c_cflag);
        EXPECT_EQ(got.c_lflag, mExpected.c_lflag) << std::hex << (got.c_lflag ^ mExpected.c_lflag);
        EXPECT_TRUE(std::equal(std::begin(got.c_cc), std::end(got.c_cc), std::begin(mExpected.c_cc)));
        EXPECT_EQ(cfgetispeed(&got), cfgetispeed(&mExpected));
        EXPECT_EQ(cfgetospeed(&got), cfgetospeed(&mExpected));
    }

    termios mExpected{};
};

TEST(SerialPhyRegistration, HappensBeforeMain)
{
    EXPECT_NE(dynamic_cast<SerialPhy*>(SManager::getSerialBackend()), nullptr);
}

TEST_F(SerialPhyLineAttributes, AreThoseOfTheUsualLine)
{
    for (const bool set : {true, false}) {
        SCOPED_TRACE(set);
        lineHas(set);
        expectRawMode(B115200);
        expectInput(kFlowInput, 0);
        expectControl(CSTOPB | kParityBits | CRTSCTS, 0);
        EXPECT_EQ(open(115200), 0);
        expectAttributes();
    }
}

TEST_F(SerialPhyLineAttributes, CarryTheRate)
{
    for (const auto& [baud, speed] : std::initializer_list<std::pair<unsigned int, speed_t>>{
             {9600, B9600}, {50, B50}, {4000000, B4000000}, {14400, B0}}) {
        SCOPED_TRACE(baud);
        lineHas(true);
        expectRawMode(speed);
        expectInput(kFlowInput, 0);
        expectControl(CSTOPB | kParityBits | CRTSCTS, 0);
        EXPECT_EQ(open(baud), 0);
        expectAttributes();
    }
}

TEST_F(SerialPhyLineAttributes, CarryTheStopBits)
{
    for (const bool set : {true, false}) {
        for (const auto& [stopBits, kept] : {std::pair{eStopBits1, CSTOPB - CSTOPB}, std::pair{eStopBits2, CSTOPB}}) {
            SCOPED_TRACE(stopBits);
            lineHas(set);
            expectRawMode(B9600);
            expectInput(kFlowInput, 0);
            expectControl(CSTOPB | kParityBits | CRTSCTS, static_cast<tcflag_t>(kept));
            EXPECT_EQ(open(line.device(), 9600, eParityNone, stopBits), 0);
            expectAttributes();
        }
    }
}

TEST_F(SerialPhyLineAttributes, CarryEachKindOfFlowControl)
{
    struct tCase
    {
        FlowControlE flowCtrl;
        tcflag_t inputCleared;
        tcflag_t inputSet;
        tcflag_t controlSet;
    };
    for (const bool set : {true, false}) {
        for (const auto& c :
             {tCase{eFlowControlNone, kFlowInput, 0, 0}, tCase{eFlowControlSoftware, INPCK | ISTRIP, IXON | IXOFF, 0},
              tCase{eFlowControlHardware, kFlowInput, 0, CRTSCTS}}) {
            SCOPED_TRACE(c.flowCtrl);
            lineHas(set);
            expectRawMode(B9600);
            expectInput(c.inputCleared, c.inputSet);
            expectControl(CSTOPB | kParityBits | CRTSCTS, c.controlSet);
            EXPECT_EQ(open(line.device(), 9600, eParityNone, eStopBits1, c.flowCtrl), 0);
            expectAttributes();
        }
    }
}

TEST_F(SerialPhyLineAttributes, LeaveThePortOpenWhenTheyAreRefused)
{
    // A pseudo terminal has no parity and eight bits only: whether the system says so or not, the port works on.
    open(line.device(), 9600, eParityEven, eStopBits1, eFlowControlNone, eDataBits7);
    EXPECT_TRUE(port.isOpen());
    ASSERT_TRUE(line.send({0x11}));
    EXPECT_EQ(read(), tBytes{0x11});
}

TEST_F(SerialPhyLine, OpensForReadingAndWritingWithoutBlockingAndNotForChildren)
{
    const auto before = descriptorsOf(line.device());
    open();
    auto after = descriptorsOf(line.device());
    ASSERT_EQ(after.size(), before.size() + 1);
    std::erase_if(after, [&](int fd) { return std::find(before.begin(), before.end(), fd) != before.end(); });
    ASSERT_EQ(after.size(), 1U);
    const int flags = fcntl(after[0], F_GETFL);
    EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
    EXPECT_NE(flags & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(after[0], F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(SerialPhyLine, ClosesWhatItOpened)
{
    const auto before = descriptorsOf(line.device()).size();
    for (int i = 0; i < 5; ++i)
        open();
    EXPECT_EQ(descriptorsOf(line.device()).size(), before + 1);
    port.close();
    EXPECT_FALSE(port.isOpen());
    EXPECT_EQ(descriptorsOf(line.device()).size(), before);
}

TEST_F(SerialPhyLine, RefusesASecondOpen)
{
    open();
    EXPECT_EQ(failureOf([&] { port.open(); }), "SerialPhy::open: is already opened");
}

TEST_F(SerialPhyLine, RefusesAnEmptyPath)
{
    EXPECT_EQ(failureOf([&] { open("", 9600); }), "SerialPhy::configurePort: port isn't open");
    EXPECT_FALSE(port.isOpen());
}

TEST_F(SerialPhyLine, TellsWhyADeviceCannotBeOpened)
{
    EXPECT_EQ(failureOf([&] { open("/nowhere/ttyS0"); }), "SerialPhy::open: failed: No such file or directory");
    EXPECT_EQ(failureOf([&] { open("/"); }), "SerialPhy::open: failed: Is a directory");
    EXPECT_FALSE(port.isOpen());
}

TEST_F(SerialPhyLine, PassesEveryByteBothWays)
{
    open(4000000);
    const auto bytes = everyByte();
    ASSERT_TRUE(line.send(bytes));
    tBytes got;
    while (got.size() < bytes.size()) {
        const auto more = read();
        ASSERT_FALSE(more.empty());
        got.insert(got.end(), more.begin(), more.end());
    }
    EXPECT_EQ(got, bytes);
    EXPECT_EQ(write(bytes), 256);
    EXPECT_EQ(line.receiveAll(256), bytes);
}

TEST_F(SerialPhyLine, ReadsNothingAtTheTimeOut)
{
    open();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(read(64, 50).empty());
    EXPECT_EQ(mResult, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
}

TEST_F(SerialPhyLine, ReadsAFrameWholeThatComesWithinTheSettlePause)
{
    open(50); // 1.4 s of settling
    const Sleeper peer([&] {
        for (const auto byte : tBytes{0x02, 0x11, 0x03, 0x2D, 0x4D, 0x00})
            line.send({byte}); // six writes, and each could wake the reader
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(read(), (tBytes{0x02, 0x11, 0x03, 0x2D, 0x4D, 0x00}));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1400ms);
}

TEST_F(SerialPhyLine, ReadsNoMoreThanAskedFor)
{
    open();
    ASSERT_TRUE(line.send({1, 2, 3, 4, 5}));
    EXPECT_EQ(read(2), (tBytes{1, 2}));
    EXPECT_EQ(read(64), (tBytes{3, 4, 5}));
}

TEST_F(SerialPhyLine, WritesNothingAtOnce)
{
    open();
    EXPECT_EQ(write({}, 0), 0);
}

TEST_F(SerialPhyLine, StopsWritingAtTheTimeOutWhenNobodyReads)
{
    open();
    tBytes bytes(1'000'000);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>(i % 251);
    const int count = write(bytes, 50);
    ASSERT_GT(count, 0);
    ASSERT_LT(count, 1'000'000);
    EXPECT_EQ(write(bytes, 50), 0);
    bytes.resize(static_cast<std::size_t>(count));
    EXPECT_EQ(line.receiveAll(bytes.size()), bytes);
}

TEST_F(SerialPhyLine, GoesOnWritingWhenThePeerReadsAgain)
{
    open();
    const tBytes bytes(100'000, 0x55);
    const Sleeper peer([&] { EXPECT_EQ(line.receiveAll(bytes.size()), bytes); });
    EXPECT_EQ(write(bytes), 100'000);
}

TEST_F(SerialPhyLine, ReadsAndWritesAtTheSameTime)
{
    open(4000000);
    const tBytes bytes(20'000, 0x55);
    const Sleeper peer([&] {
        for (int i = 0; i < 20; ++i) {
            EXPECT_TRUE(line.send(tBytes(1000, 0x66)));
            EXPECT_EQ(line.receiveAll(1000), tBytes(1000, 0x55));
        }
    });
    const Sleeper writer([&] { EXPECT_EQ(write(bytes), 20'000); });
    std::size_t got = 0;
    while (got < 20'000) {
        unsigned char chunk[64];
        const int count = port.readBlocking(chunk, sizeof chunk, 10'000);
        ASSERT_GT(count, 0);
        got += static_cast<std::size_t>(count);
    }
    EXPECT_EQ(got, 20'000U);
}

TEST_F(SerialPhyLine, WaitsOutItsTimeOutOnALineThatIsHungUp)
{
    open();
    line.hangUp();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(read(64, 50).empty());
    EXPECT_LE(mResult, 0);
    EXPECT_TRUE(port.isOpen());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms) << "a busy loop";
}

TEST_F(SerialPhyLine, GivesUpALineThatStaysHungUp)
{
    open();
    line.hangUp();
    read(64, 50);
    EXPECT_EQ(failureOf([&] { read(64, 1'000'000); }), "SerialPhy::read: line hung up"); // 1000 s: it does not wait
    EXPECT_FALSE(port.isOpen());
}

TEST_F(SerialPhyLine, HangingUpWakesAReaderThatThenWaitsOutItsTime)
{
    open();
    const auto start = std::chrono::steady_clock::now();
    {
        Sleeper reader([&] { EXPECT_TRUE(read(64, 300).empty()); });
        EXPECT_TRUE(reader.fallsAsleep());
        line.hangUp();
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
    EXPECT_LE(mResult, 0);
}

TEST_F(SerialPhyLine, CannotWriteToALineThatIsHungUp)
{
    open();
    line.hangUp();
    EXPECT_EQ(failureOf([&] { write({0x11}); }), "SerialPhy::write: strange write failure: Input/output error");
    EXPECT_TRUE(port.isOpen());
}

TEST_F(SerialPhyLine, WorksAgainOnAFreshLine)
{
    open();
    const auto descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    line.hangUp();
    read(64, 10);
    failureOf([&] { read(64, 10); });
    PtyLine fresh;
    open(fresh.device());
    ASSERT_TRUE(fresh.send({0x11}));
    EXPECT_EQ(read(), tBytes{0x11});
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}), descriptors);
}

TEST_F(SerialPhyLine, StopsReadingWhenASignalComes)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    struct sigaction before = {};
    ASSERT_EQ(sigaction(SIGUSR2, &action, &before), 0);
    open();
    {
        Sleeper reader([&] { read(64, 100'000); });
        EXPECT_TRUE(reader.fallsAsleep());
        pthread_kill(reader.handle(), SIGUSR2);
    }
    EXPECT_EQ(mResult, 0);
    sigaction(SIGUSR2, &before, nullptr);
}

TEST_F(SerialPhyLine, IsTakenForThoseWhoAsk)
{
    open();
    const int other = ::open(line.device().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    port.close();
    EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(open(), 0); // whoever has it, it is the daemon's line
    ::close(other);
}

/// While it lives no poll works: not even one descriptor is allowed.
class NoDescriptors
{
public:
    NoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &mBefore);
        const rlimit none{0, mBefore.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &mBefore); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit mBefore{};
};

TEST_F(SerialPhyLine, TellsWhyAPollFailed)
{
    // A sanitizer needs a descriptor where it meets a type for the first time: not below, then.
    EXPECT_STREQ(SerialException("met").what(), "met");
    open();
    std::string readFailure;
    std::string writeFailure;
    {
        const NoDescriptors guard;
        readFailure = failureOf([&] { read(64, 10); });
        writeFailure = failureOf([&] { write({0x11}, 10); });
    }
    EXPECT_EQ(readFailure, "SerialPhy::read: poll failed: Invalid argument");
    EXPECT_EQ(writeFailure, "SerialPhy::write: poll failed: Invalid argument");
    EXPECT_TRUE(port.isOpen());
    ASSERT_TRUE(line.send({0x11}));
    EXPECT_EQ(read(), tBytes{0x11});
}

TEST_F(SerialPhyNoTerminal, WorksOnAPipe)
{
    const auto path = mFolder + "/pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(open(path), 0);
    EXPECT_TRUE(port.isOpen());
    EXPECT_EQ(write({1, 2, 3}), 3);
    EXPECT_EQ(read(), (tBytes{1, 2, 3}));
    EXPECT_TRUE(read(64, 10).empty());
    EXPECT_EQ(mResult, 0);
}

TEST_F(SerialPhyNoTerminal, WorksOnAFile)
{
    const auto path = mFolder + "/file";
    std::ofstream(path) << "abcdef";
    EXPECT_EQ(open(path), 0);
    EXPECT_EQ(read(3), (tBytes{'a', 'b', 'c'}));
    EXPECT_EQ(write({'X'}), 1);
    port.close();
    std::string text;
    std::ifstream(path) >> text;
    EXPECT_EQ(text, "abcXef");
}

TEST_F(SerialPhyNoTerminal, ReturnsAtOnceFromTheEndOfAFile)
{
    const auto path = mFolder + "/file";
    std::ofstream(path) << "";
    open(path);
    EXPECT_TRUE(read(64, 1'000'000).empty()); // 1000 s: a wait would end the test run
    EXPECT_EQ(mResult, 0);
}

} // namespace
