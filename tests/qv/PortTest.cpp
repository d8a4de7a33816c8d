#include "qv/Port.h"

#include "qv/BadLine.h"
#include "tests/qv/Hex.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

qv::Clock::time_point soon()
{
    return qv::Clock::now() + 10s;
}

struct tPty
{
    tPty()
    {
        grantpt(master);
        unlockpt(master);
        device = ptsname(master);
        termios settings{}; // a terminal echoes, even while nobody has it open; a line does not
        tcgetattr(master, &settings);
        cfmakeraw(&settings);
        tcsetattr(master, TCSANOW, &settings);
    }
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    std::string device;
};

TEST(Port, PassesEveryByteUnchanged)
{
    tPty pty;
    auto slave = qv::Port::open(pty.device, 115200);
    auto master = qv::Port::adopt(pty.master);
    qv::Bytes all(256);
    for (unsigned i = 0; i < 256; ++i) {
        all[i] = static_cast<std::uint8_t>(i);
    }
    for (auto [from, to] : {std::pair<qv::Line*, qv::Line*>{&slave, &master}, {&master, &slave}}) {
        from->write(all);
        qv::Bytes got;
        while (got.size() < all.size()) {
            const auto part = to->read(soon());
            ASSERT_FALSE(part.empty());
            got.insert(got.end(), part.begin(), part.end());
        }
        EXPECT_EQ(got, all);
    }
}

TEST(Port, SetsTheRate)
{
    tPty pty;
    auto slave = qv::Port::open(pty.device, 9600);
    auto master = qv::Port::adopt(pty.master);
    termios settings{};
    ASSERT_EQ(tcgetattr(slave.fd(), &settings), 0);
    EXPECT_EQ(cfgetospeed(&settings), static_cast<speed_t>(B9600));
    EXPECT_EQ(settings.c_cflag & static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CRTSCTS), static_cast<tcflag_t>(CS8));
    EXPECT_EQ(settings.c_lflag & static_cast<tcflag_t>(ICANON | ECHO | ISIG), 0U);
}

TEST(Port, LeavesTheDeviceAsItWasFound)
{
    tPty pty;
    const int daemon = ::open(pty.device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios before{};
    ASSERT_EQ(tcgetattr(daemon, &before), 0);
    ASSERT_EQ(cfsetspeed(&before, B9600), 0);
    before.c_cflag |= static_cast<tcflag_t>(CSTOPB);
    before.c_iflag |= static_cast<tcflag_t>(IXOFF);
    before.c_lflag |= static_cast<tcflag_t>(ECHO);
    ASSERT_EQ(tcsetattr(daemon, TCSANOW, &before), 0);
    {
        auto port = qv::Port::open(pty.device, 115200);
        const auto moved = std::move(port);
    }
    termios after{};
    ASSERT_EQ(tcgetattr(daemon, &after), 0);
    EXPECT_EQ(cfgetospeed(&after), static_cast<speed_t>(B9600));
    EXPECT_EQ(after.c_cflag, before.c_cflag);
    EXPECT_EQ(after.c_iflag, before.c_iflag);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    ::close(daemon);
    ::close(pty.master);
}

TEST(Port, IsRefusedToASecondOwner)
{
    tPty pty;
    {
        auto first = qv::Port::open(pty.device, 9600);
        try {
            qv::Port::open(pty.device, 115200);
            ADD_FAILURE() << "two owners";
        } catch (const qv::PortInUse& error) {
            EXPECT_EQ(error.what(), "another program uses " + pty.device);
        }
        termios settings{};
        ASSERT_EQ(tcgetattr(first.fd(), &settings), 0);
        EXPECT_EQ(cfgetospeed(&settings), static_cast<speed_t>(B9600)) << "the first one's rate stays";
    }
    EXPECT_NO_THROW(qv::Port::open(pty.device, 115200)) << "free again";
    ::close(pty.master);
}

TEST(Port, SaysWhyItCannotOpen)
{
    const auto text = [](const std::string& device, unsigned baud) {
        try {
            qv::Port::open(device, baud);
        } catch (const qv::LineError& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    EXPECT_EQ(text("/no/such/port", 9600), "cannot open /no/such/port: No such file or directory");
    EXPECT_EQ(text("/dev/null", 9600), "/dev/null is not a serial port: Inappropriate ioctl for device");
    EXPECT_NE(text("/dev/null", 14400).find("no such rate: 14400 bit/s (there are 50, 75"), std::string::npos);
}

TEST(Port, ALineThatHangsUpIsAnError)
{
    tPty pty;
    auto slave = qv::Port::open(pty.device, 9600);
    ::close(pty.master);
    EXPECT_THROW(slave.read(soon()), qv::LineError);
    EXPECT_THROW(slave.write(hex("01")), qv::LineError);
}

TEST(Port, AnAdoptedMasterOutlivesItsOtherEnd)
{
    tPty pty;
    auto master = qv::Port::adopt(pty.master);
    {
        const auto slave = qv::Port::open(pty.device, 9600);
    }
    EXPECT_TRUE(master.read(qv::Clock::now() + 20ms).empty());
    EXPECT_NO_THROW(master.write(hex("44"))) << "lost, as on a line without a cable";
    auto slave = qv::Port::open(pty.device, 9600);
    slave.write(hex("55"));
    EXPECT_EQ(master.read(soon()), hex("55"));
}

TEST(Port, ReadWithoutWaitingTakesWhatIsThere)
{
    tPty pty;
    auto slave = qv::Port::open(pty.device, 9600);
    auto master = qv::Port::adopt(pty.master);
    EXPECT_TRUE(slave.read(qv::Clock::now() - 1s).empty());
}

TEST(BadLineOnAPty, SplitsAndDelaysWithoutLosingAByte)
{
    tPty pty;
    auto slave = qv::Port::open(pty.device, 9600);
    auto master = qv::Port::adopt(pty.master);
    qv::BadLine bad(slave, {.split = true, .splitPause = 1ms, .delay = 3ms});
    const auto frame = hex("02 10 01 03 8F FF 00");
    bad.write(frame);
    qv::Bytes got;
    while (got.size() < frame.size()) {
        const auto part = master.read(soon());
        ASSERT_FALSE(part.empty());
        got.insert(got.end(), part.begin(), part.end());
    }
    EXPECT_EQ(got, frame);

    master.write(frame);
    const auto first = bad.read(soon());
    EXPECT_LT(first.size(), frame.size());
    auto second = bad.read(soon());
    second.insert(second.begin(), first.begin(), first.end());
    EXPECT_EQ(second, frame);
    EXPECT_EQ(bad.receivedCounts().splits, 1U);
    EXPECT_EQ(bad.sentCounts().splits, 1U);
}

} // namespace
