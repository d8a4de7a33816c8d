#include "link/SerialPhy.h"

#include "link/SerialException.h"
#include "tests/unit/link/SystemScript.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <type_traits>
#include <utility>

namespace {

using namespace std::chrono_literals;
using testing::PrintToString;
using tCalls = std::vector<std::string>;

/// The port on scripted system calls.
class SerialPhyTest : public testing::Test
{
protected:
    int open(unsigned int baud = 115200, FlowControlE flowCtrl = eFlowControlNone)
    {
        return init(SystemScript::kDevice, baud, eDataBits8, eParityNone, eStopBits1, flowCtrl);
    }
    int init(const char* device, unsigned int baud, DataBitsE dataBits = eDataBits8, ParityE parity = eParityNone,
             StopBitsE stopBits = eStopBits1, FlowControlE flowCtrl = eFlowControlNone)
    {
        tInitParams params{device, baud, dataBits, parity, stopBits, flowCtrl};
        return port.init(&params);
    }
    int read(int timeoutMs = 1000) { return port.readBlocking(mBuffer, sizeof mBuffer, timeoutMs); }
    int write(const std::string& text, int timeoutMs = 1000)
    {
        return port.writeBlocking(reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<unsigned int>(text.size()), timeoutMs);
    }
    /// What the next read finds: a line that is hung up.
    void hangUp(int sign, int result)
    {
        system.mPolls.push_back({1, 0, static_cast<short>(POLLIN | sign)});
        system.mReads.push_back({result, EIO});
    }
    /// A line that one read has found hung up.
    void hangUpOnce(int sign, int result)
    {
        open();
        hangUp(sign, result);
        EXPECT_EQ(read(), result);
    }
    /// The calls since the last look.
    tCalls calls() { return std::exchange(system.mCalls, {}); }

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

    SystemScript system;
    SerialPhy port;
    unsigned char mBuffer[64] = {};
};

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

TEST_F(SerialPhyTest, IsASerialExceptionThatIsARuntimeError)
{
    static_assert(std::is_base_of_v<std::runtime_error, SerialException>);
    EXPECT_STREQ(SerialException("text").what(), "text");
}

TEST_F(SerialPhyTest, IsABackendOfKindZero)
{
    EXPECT_EQ(port.getBackendType(), 0);
}

TEST_F(SerialPhyTest, StartsClosedAndWithoutSettings)
{
    EXPECT_FALSE(port.isOpen());
    EXPECT_EQ(port.getDataBits(), 0U);
    EXPECT_EQ(port.getParity(), 0U);
    EXPECT_EQ(port.getStopBits(), 0U);
    EXPECT_EQ(port.getFlowCtrl(), 0U);
}

TEST_F(SerialPhyTest, TakesItsSettingsFromInitOnly)
{
    init(SystemScript::kDevice, 9600, eDataBits7, eParityEven, eStopBits2, eFlowControlHardware);
    port.setDataBits(eDataBits5);
    port.setParity(eParityOdd);
    port.setStopBits(eStopBits1);
    port.setFlowCtrl(eFlowControlSoftware);
    EXPECT_EQ(port.getDataBits(), eDataBits7);
    EXPECT_EQ(port.getParity(), eParityEven);
    EXPECT_EQ(port.getStopBits(), eStopBits2);
    EXPECT_EQ(port.getFlowCtrl(), eFlowControlHardware);
}

TEST_F(SerialPhyTest, NumbersItsSettingsAsTheLineDoes)
{
    EXPECT_EQ(eDataBits5, 5U);
    EXPECT_EQ(eDataBits6, 6U);
    EXPECT_EQ(eDataBits7, 7U);
    EXPECT_EQ(eDataBits8, 8U);
    EXPECT_EQ(eParityNone, 0U);
    EXPECT_EQ(eParityOdd, 1U);
    EXPECT_EQ(eParityEven, 2U);
    EXPECT_EQ(eStopBits1, 1U);
    EXPECT_EQ(eStopBits2, 2U);
    EXPECT_EQ(eFlowControlNone, 0U);
    EXPECT_EQ(eFlowControlSoftware, 1U);
    EXPECT_EQ(eFlowControlHardware, 2U);
    EXPECT_EQ(SerialIf::eBackendSerial, 0);
    EXPECT_EQ(SerialIf::eBackendSharedMemory, 1);
}

TEST_F(SerialPhyTest, KnowsEveryRateOfTheTable)
{
    EXPECT_EQ(std::size(kRates), 30U);
    for (const auto& rate : kRates)
        EXPECT_EQ(port.toBaudrate(rate.baud), rate.speed) << rate.baud;
}

TEST_F(SerialPhyTest, TakesAnyOtherRateForTheHangUpSpeed)
{
    for (const auto& rate : kRates) {
        EXPECT_EQ(port.toBaudrate(rate.baud - 1), B0);
        EXPECT_EQ(port.toBaudrate(rate.baud + 1), B0);
    }
    for (const unsigned int baud : {0U, 14400U, 28800U, 256000U, 4500000U, 4294967295U})
        EXPECT_EQ(port.toBaudrate(baud), B0) << baud;
}

TEST_F(SerialPhyTest, OpensConfiguresAndClosesInThisOrder)
{
    {
        SerialPhy other;
        tInitParams params{SystemScript::kDevice, 9600, eDataBits8, eParityNone, eStopBits1, eFlowControlNone};
        EXPECT_EQ(other.init(&params), 0);
        EXPECT_TRUE(other.isOpen());
        EXPECT_EQ(calls(), (tCalls{"open", "tcgetattr", "tcsetattr"}));
    }
    EXPECT_EQ(calls(), tCalls{"close"});
    EXPECT_EQ(system.mOpenFlags, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(system.mSetAction, TCSANOW);
}

TEST_F(SerialPhyTest, ClosesWhatIsOpenBeforeItOpensAgain)
{
    open();
    calls();
    open();
    EXPECT_EQ(calls(), (tCalls{"close", "open", "tcgetattr", "tcsetattr"}));
    EXPECT_TRUE(port.isOpen());
}

TEST_F(SerialPhyTest, ClosesOnce)
{
    open();
    calls();
    port.close();
    EXPECT_FALSE(port.isOpen());
    port.close();
    EXPECT_EQ(calls(), tCalls{"close"});
}

TEST_F(SerialPhyTest, RefusesASecondOpen)
{
    open();
    EXPECT_EQ(failureOf([&] { port.open(); }), "SerialPhy::open: is already opened");
    EXPECT_TRUE(port.isOpen());
    calls();
    port.close();
    port.open();
    EXPECT_EQ(failureOf([&] { port.open(); }), "SerialPhy::open: is already opened");
    EXPECT_EQ(calls(), (tCalls{"close", "open"}));
}

TEST_F(SerialPhyTest, TellsWhyItCouldNotOpen)
{
    open();
    system.mOpenError = EACCES;
    EXPECT_EQ(failureOf([&] { open(); }), "SerialPhy::open: failed: Permission denied");
    EXPECT_FALSE(port.isOpen());
    system.mOpenError = ENOENT;
    EXPECT_EQ(failureOf([&] { open(); }), "SerialPhy::open: failed: No such file or directory");
    system.mOpenError = 0;
    EXPECT_EQ(open(), 0);
    EXPECT_TRUE(port.isOpen());
}

TEST_F(SerialPhyTest, SkipsOpeningAnEmptyPathAndMissesThePortThen)
{
    open();
    calls();
    EXPECT_EQ(failureOf([&] { init("", 9600); }), "SerialPhy::configurePort: port isn't open");
    EXPECT_FALSE(port.isOpen());
    EXPECT_EQ(calls(), tCalls{"close"});
}

TEST_F(SerialPhyTest, CannotConfigureAClosedPort)
{
    EXPECT_EQ(failureOf([&] { port.configurePort(9600); }), "SerialPhy::configurePort: port isn't open");
    EXPECT_TRUE(calls().empty());
}

TEST_F(SerialPhyTest, TakesADeviceThatIsNoTerminalForConfigured)
{
    system.mGetAttributesResult = -1;
    EXPECT_EQ(open(), 0);
    EXPECT_TRUE(port.isOpen());
    EXPECT_EQ(calls(), (tCalls{"open", "tcgetattr"}));
}

TEST_F(SerialPhyTest, IsOpenEvenWhenTheSettingsAreRefused)
{
    system.mSetAttributesResult = -1;
    EXPECT_EQ(open(), -1);
    EXPECT_TRUE(port.isOpen());
}

/// The attributes of the line before and after init.
class SerialPhyAttributes : public SerialPhyTest
{
protected:
    void lineHas(int everyByte) { std::memset(&mExpected, everyByte, sizeof mExpected); }

    /// Raw mode without any setting that has a choice: whatever is not named here stays.
    void expectRawMode(speed_t speed)
    {
        mExpected.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | INLCR | IGNCR | ICRNL);
        mExpected.c_oflag &= ~static_cast<tcflag_t>(OPOST);
        mExpected.c_cflag |= CLOCAL | CREAD;
        mExpected.c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL | IEXTEN);
        mExpected.c_cc[VTIME] = 0;
        mExpected.c_cc[VMIN] = 0;
        ASSERT_EQ(cfsetispeed(&mExpected, speed), 0);
        ASSERT_EQ(cfsetospeed(&mExpected, speed), 0);
    }
    void expectControl(tcflag_t cleared, tcflag_t set) { mExpected.c_cflag = (mExpected.c_cflag & ~cleared) | set; }
    void expectInput(tcflag_t cleared, tcflag_t set) { mExpected.c_iflag = (mExpected.c_iflag & ~cleared) | set; }

    /// Initialises the port on a line that has every flag set or none and compares each word.
    template <class Expectation>
    void expectAttributes(unsigned int baud, speed_t speed, unsigned int dataBits, unsigned int parity,
                          unsigned int stopBits, unsigned int flowCtrl, Expectation expectation)
    {
        for (const int everyByte : {0x00, 0xFF}) {
            lineHas(everyByte);
            system.mAttributes = mExpected;
            expectRawMode(speed);
            expectation();
            EXPECT_EQ(init(SystemScript::kDevice, baud, DataBitsE{dataBits}, ParityE{parity}, StopBitsE{stopBits},
                           FlowControlE{flowCtrl}),
                      0);
            SCOPED_TRACE(PrintToString(everyByte) + " before");
            const auto& got = system.mAttributes;
            EXPECT_EQ(got.c_iflag, mExpected.c_iflag) << std::hex << (got.c_iflag ^ mExpected.c_iflag);
            EXPECT_EQ(got.c_oflag, mExpected.c_oflag) << std::hex << (got.c_oflag ^ mExpected.c_oflag);
            EXPECT_EQ(got.c_cflag, mExpected.c_cflag) << std::hex << (got.c_cflag ^ mExpected.c_cflag);
            EXPECT_EQ(got.c_lflag, mExpected.c_lflag) << std::hex << (got.c_lflag ^ mExpected.c_lflag);
            EXPECT_TRUE(std::equal(std::begin(got.c_cc), std::end(got.c_cc), std::begin(mExpected.c_cc)));
            EXPECT_EQ(got.c_line, mExpected.c_line);
            EXPECT_EQ(cfgetispeed(&got), speed);
            EXPECT_EQ(cfgetospeed(&got), speed);
        }
    }

    termios mExpected{};
};

constexpr tcflag_t kParityBits = PARENB | PARODD;
constexpr tcflag_t kInputBits = INPCK | ISTRIP | IXON | IXOFF | IXANY;

TEST_F(SerialPhyAttributes, AreExactlyThoseOfTheUsualLine)
{
    expectAttributes(115200, B115200, 8, 0, 1, 0, [&] {
        expectControl(CSIZE | CSTOPB | kParityBits | CRTSCTS, CS8);
        expectInput(kInputBits, 0);
    });
}

TEST_F(SerialPhyAttributes, CarryTheNumberOfDataBits)
{
    const std::pair<unsigned int, tcflag_t> kSizes[] = {{5, CS5}, {6, CS6}, {7, CS7}, {8, CS8}, {0, CS5}, {9, CS5}};
    for (const auto& [dataBits, size] : kSizes) {
        SCOPED_TRACE(dataBits);
        expectAttributes(9600, B9600, dataBits, 0, 1, 0, [&, size = size] {
            expectControl(CSIZE | CSTOPB | kParityBits | CRTSCTS, size);
            expectInput(kInputBits, 0);
        });
    }
}

TEST_F(SerialPhyAttributes, CarryTheStopBitsOrLeaveThemAlone)
{
    struct tCase
    {
        unsigned int stopBits;
        tcflag_t cleared;
        tcflag_t set;
    };
    for (const auto& [stopBits, cleared, set] :
         {tCase{1, CSTOPB, 0}, tCase{2, CSTOPB, CSTOPB}, tCase{0, 0, 0}, tCase{3, 0, 0}}) {
        SCOPED_TRACE(stopBits);
        expectAttributes(9600, B9600, 8, 0, stopBits, 0, [&, cleared = cleared, set = set] {
            expectControl(CSIZE | kParityBits | CRTSCTS, CS8);
            expectControl(cleared, set);
            expectInput(kInputBits, 0);
        });
    }
}

TEST_F(SerialPhyAttributes, CarryTheParityOrLeaveItAlone)
{
    struct tCase
    {
        unsigned int parity;
        tcflag_t cleared;
        tcflag_t set;
    };
    for (const auto& [parity, cleared, set] : {tCase{0, kParityBits, 0}, tCase{1, kParityBits, PARENB | PARODD},
                                               tCase{2, kParityBits, PARENB}, tCase{3, 0, 0}}) {
        SCOPED_TRACE(parity);
        expectAttributes(9600, B9600, 8, parity, 1, 0, [&, cleared = cleared, set = set] {
            expectControl(CSIZE | CSTOPB | CRTSCTS, CS8);
            expectControl(cleared, set);
            expectInput(kInputBits, 0);
        });
    }
}

TEST_F(SerialPhyAttributes, CarryNoFlowControlForZeroAndForWhatIsUnknown)
{
    for (const unsigned int flowCtrl : {0U, 3U}) {
        SCOPED_TRACE(flowCtrl);
        expectAttributes(9600, B9600, 8, 0, 1, flowCtrl, [&] {
            expectControl(CSIZE | CSTOPB | kParityBits | CRTSCTS, CS8);
            expectInput(INPCK | ISTRIP | IXON | IXOFF | IXANY, 0);
        });
    }
}

TEST_F(SerialPhyAttributes, CarrySoftwareFlowControlAndLeaveAnyCharacterRestartAlone)
{
    expectAttributes(9600, B9600, 8, 0, 1, 1, [&] {
        expectControl(CSIZE | CSTOPB | kParityBits | CRTSCTS, CS8);
        expectInput(INPCK | ISTRIP, IXON | IXOFF);
    });
}

TEST_F(SerialPhyAttributes, CarryHardwareFlowControl)
{
    expectAttributes(9600, B9600, 8, 0, 1, 2, [&] {
        expectControl(CSIZE | CSTOPB | kParityBits, CS8 | CRTSCTS);
        expectInput(INPCK | ISTRIP | IXON | IXOFF | IXANY, 0);
    });
}

TEST_F(SerialPhyAttributes, CarryTheHangUpSpeedForAnUnknownRate)
{
    expectAttributes(14400, B0, 8, 0, 1, 0, [&] {
        expectControl(CSIZE | CSTOPB | kParityBits | CRTSCTS, CS8);
        expectInput(kInputBits, 0);
    });
}

TEST_F(SerialPhyAttributes, CarryTheRateGivenAndEveryOther)
{
    for (const auto& rate : kRates) {
        open(rate.baud);
        EXPECT_EQ(cfgetispeed(&system.mAttributes), rate.speed) << rate.baud;
        EXPECT_EQ(cfgetospeed(&system.mAttributes), rate.speed) << rate.baud;
    }
}

using SerialPhyRead = SerialPhyTest;

TEST_F(SerialPhyRead, IsOnePollOneSettlePauseAndOneRead)
{
    open();
    calls();
    system.mReads.push_back({3, 0, 0, "abc"});
    EXPECT_EQ(read(), 3);
    EXPECT_EQ(std::string(mBuffer, mBuffer + 3), "abc");
    EXPECT_EQ(calls(), (tCalls{"poll in 1000", "sleep 607638 ns", "read 64"}));
}

TEST_F(SerialPhyRead, PausesForSevenCharactersOfTenBits)
{
    const std::pair<unsigned int, const char*> kPauses[] = {
        {4000000, "sleep 17500 ns"}, {115200, "sleep 607638 ns"},  {57600, "sleep 1215277 ns"},
        {9600, "sleep 7291666 ns"},  {50, "sleep 1400000000 ns"},  {70, "sleep 1000000000 ns"},
        {14400, "sleep 4861111 ns"}, {4294967295U, "sleep 16 ns"},
    };
    for (const auto& [baud, pause] : kPauses) {
        open(baud);
        calls();
        system.mReads.push_back({1, 0, 0, "a"});
        EXPECT_EQ(read(), 1);
        EXPECT_EQ(calls(), (tCalls{"poll in 1000", pause, "read 64"})) << baud;
    }
}

TEST_F(SerialPhyRead, PausesNoLongerThanThirtyTwoBitsHold)
{
    for (const auto& [baud, pause] : {std::pair{17U, "sleep 4117647058 ns"}, std::pair{16U, "sleep 4294967295 ns"},
                                      std::pair{1U, "sleep 4294967295 ns"}, std::pair{0U, "sleep 4294967295 ns"}}) {
        open(baud);
        calls();
        system.mReads.push_back({1, 0, 0, "a"});
        EXPECT_EQ(read(), 1);
        EXPECT_EQ(calls()[1], pause) << baud;
    }
}

TEST_F(SerialPhyRead, GoesOnWithAPauseThatASignalInterrupts)
{
    open(50);
    calls();
    system.mInterruptedSleeps = {1200ms, 1ms};
    system.mReads.push_back({1, 0, 0, "a"});
    EXPECT_EQ(read(), 1);
    EXPECT_EQ(calls(),
              (tCalls{"poll in 1000", "sleep 1400000000 ns", "sleep 1200000000 ns", "sleep 1000000 ns", "read 64"}));
    EXPECT_EQ(system.mSlept, 1400ms);
}

TEST_F(SerialPhyRead, ReturnsZeroAtTheTimeOut)
{
    open();
    calls();
    system.mPolls.push_back({0});
    EXPECT_EQ(read(250), 0);
    EXPECT_EQ(calls(), tCalls{"poll in 250"});
}

TEST_F(SerialPhyRead, ReturnsZeroWhenASignalInterruptsTheWait)
{
    open();
    calls();
    system.mPolls.push_back({-1, EINTR});
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(calls(), tCalls{"poll in 1000"});
}

TEST_F(SerialPhyRead, TellsWhyThePollFailedAfterWaitingOutItsTimeOut)
{
    open();
    calls();
    system.mPolls.push_back({-1, EINVAL});
    EXPECT_EQ(failureOf([&] { read(100'000); }), "SerialPhy::read: poll failed: Invalid argument");
    EXPECT_TRUE(port.isOpen());
    EXPECT_EQ(calls().size(), 2U);
    EXPECT_GT(system.mSlept, 90s);
    EXPECT_LE(system.mSlept, 100s);
}

TEST_F(SerialPhyRead, ReturnsWhatTheReadReturns)
{
    open();
    for (const int result : {-1, 0, 64}) {
        calls();
        system.mReads.push_back({result, EAGAIN, 0, std::string(result > 0 ? 64 : 0, 'x')});
        EXPECT_EQ(read(), result);
        EXPECT_EQ(calls(), (tCalls{"poll in 1000", "sleep 607638 ns", "read 64"}));
    }
}

TEST_F(SerialPhyRead, WaitsOutItsTimeOutOnALineThatHangsUp)
{
    for (const int sign : {POLLHUP, POLLERR, POLLNVAL}) {
        for (const int result : {0, -1}) {
            open();
            calls();
            system.mSlept = 0s;
            hangUp(sign, result);
            EXPECT_EQ(read(100'000), result);
            EXPECT_EQ(calls().size(), 4U) << "poll, settle pause, read, the rest of the time";
            EXPECT_GT(system.mSlept, 90s);
            EXPECT_LE(system.mSlept, 100s + 1ms);
        }
    }
}

TEST_F(SerialPhyRead, GivesUpALineThatTheNextReadFindsStillHungUp)
{
    for (const int sign : {POLLHUP, POLLERR, POLLNVAL}) {
        for (const int result : {0, -1}) {
            hangUpOnce(sign, result);
            calls();
            system.mSlept = 0s;
            hangUp(sign, result);
            EXPECT_EQ(failureOf([&] { read(100'000); }), "SerialPhy::read: line hung up");
            EXPECT_FALSE(port.isOpen());
            EXPECT_EQ(calls(), (tCalls{"poll in 100000", "sleep 607638 ns", "read 64"}));
            EXPECT_EQ(failureOf([&] { read(); }), "SerialPhy::read: port not opened");
            EXPECT_EQ(failureOf([&] { write("a"); }), "SerialPhy::write: port not opened");
        }
    }
}

/// The reply thread may be writing on it; init comes when that has ended.
TEST_F(SerialPhyRead, LeavesTheDescriptorOfALineThatItGivesUpToInit)
{
    hangUpOnce(POLLHUP, 0);
    hangUp(POLLHUP, 0);
    failureOf([&] { read(); });
    calls();
    open();
    EXPECT_EQ(calls(), (tCalls{"close", "open", "tcgetattr", "tcsetattr"}));
    EXPECT_TRUE(port.isOpen());
}

TEST_F(SerialPhyRead, GivesTheDescriptorOfALineThatItGaveUpBackEvenIfTheDeviceIsAway)
{
    hangUpOnce(POLLHUP, 0);
    hangUp(POLLHUP, 0);
    failureOf([&] { read(); });
    calls();
    system.mOpenError = ENOENT;
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(failureOf([&] { open(); }), "SerialPhy::open: failed: No such file or directory");
    EXPECT_EQ(calls(), (tCalls{"close", "open", "open"}));
}

TEST_F(SerialPhyRead, ForgetsAHangUpThatIsOverByTheNextRead)
{
    struct tRead
    {
        const char* what;
        SystemScript::tAnswer poll;
        SystemScript::tAnswer read;
    };
    const tRead kReads[] = {{"silence", {0}, {0}},
                            {"bytes", {1, 0, POLLIN}, {2, 0, 0, "ab"}},
                            {"the last bytes", {1, 0, POLLIN | POLLHUP}, {2, 0, 0, "ab"}},
                            {"nothing on a line that is up", {1, 0, POLLIN}, {0}}};
    for (const auto& between : kReads) {
        SCOPED_TRACE(between.what);
        hangUpOnce(POLLHUP, 0);
        system.mPolls.push_back(between.poll);
        if (between.poll.result > 0)
            system.mReads.push_back(between.read);
        EXPECT_EQ(read(), between.read.result);
        hangUp(POLLHUP, 0);
        EXPECT_EQ(read(), 0) << "a hang-up of its own";
        EXPECT_TRUE(port.isOpen());
    }
}

TEST_F(SerialPhyRead, BeginsAfreshWithAFreshLine)
{
    hangUpOnce(POLLHUP, 0);
    open();
    hangUp(POLLHUP, 0);
    EXPECT_EQ(read(), 0);
    EXPECT_TRUE(port.isOpen());
}

TEST_F(SerialPhyRead, TakesTheLastBytesOfALineThatHangsUpWithoutWaiting)
{
    open();
    calls();
    system.mPolls.push_back({1, 0, POLLIN | POLLHUP});
    system.mReads.push_back({2, 0, 0, "ab"});
    EXPECT_EQ(read(100'000), 2);
    EXPECT_EQ(calls(), (tCalls{"poll in 100000", "sleep 607638 ns", "read 64"}));
}

TEST_F(SerialPhyRead, NeedsAnOpenPort)
{
    EXPECT_EQ(failureOf([&] { read(); }), "SerialPhy::read: port not opened");
    open();
    port.close();
    calls();
    EXPECT_EQ(failureOf([&] { read(); }), "SerialPhy::read: port not opened");
    EXPECT_TRUE(calls().empty());
}

using SerialPhyWrite = SerialPhyTest;

TEST_F(SerialPhyWrite, IsOnePollAndOneWrite)
{
    open();
    calls();
    EXPECT_EQ(write("hello"), 5);
    EXPECT_EQ(calls(), (tCalls{"poll out 1000", "write hello"}));
}

TEST_F(SerialPhyWrite, OfNothingDoesNotPoll)
{
    open();
    calls();
    EXPECT_EQ(write(""), 0);
    EXPECT_TRUE(calls().empty());
}

TEST_F(SerialPhyWrite, GoesOnUntilAllIsWritten)
{
    open();
    calls();
    system.mWrites = {{2}, {1}};
    EXPECT_EQ(write("hello", 20), 5);
    EXPECT_EQ(calls(), (tCalls{"poll out 20", "write hello", "poll out 20", "write llo", "poll out 20", "write lo"}));
}

TEST_F(SerialPhyWrite, ReturnsTheCountSoFarAtATimeOut)
{
    open();
    calls();
    system.mPolls = {{1}, {0}};
    system.mWrites = {{2}};
    EXPECT_EQ(write("hello"), 2);
    EXPECT_EQ(calls(), (tCalls{"poll out 1000", "write hello", "poll out 1000"}));

    system.mPolls = {{0}};
    EXPECT_EQ(write("hello"), 0);
    EXPECT_EQ(calls(), tCalls{"poll out 1000"});
}

TEST_F(SerialPhyWrite, TriesAgainWhenASignalInterruptsIt)
{
    open();
    calls();
    system.mPolls = {{-1, EINTR}, {1}, {1}};
    system.mWrites = {{-1, EINTR}, {5}};
    EXPECT_EQ(write("hello"), 5);
    EXPECT_EQ(calls(), (tCalls{"poll out 1000", "poll out 1000", "write hello", "poll out 1000", "write hello"}));
}

TEST_F(SerialPhyWrite, TellsWhyThePollFailed)
{
    open();
    system.mPolls.push_back({-1, EINVAL});
    EXPECT_EQ(failureOf([&] { write("hello"); }), "SerialPhy::write: poll failed: Invalid argument");
    EXPECT_TRUE(port.isOpen());
}

TEST_F(SerialPhyWrite, TellsWhyTheWriteFailed)
{
    open();
    system.mWrites.push_back({-1, EIO});
    EXPECT_EQ(failureOf([&] { write("hello"); }), "SerialPhy::write: strange write failure: Input/output error");
    EXPECT_TRUE(port.isOpen());
}

TEST_F(SerialPhyWrite, NeedsAnOpenPortEvenForNothing)
{
    EXPECT_EQ(failureOf([&] { write("hello"); }), "SerialPhy::write: port not opened");
    EXPECT_EQ(failureOf([&] { write(""); }), "SerialPhy::write: port not opened");
}

} // namespace
