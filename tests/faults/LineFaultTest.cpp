#include "tests/faults/FaultTest.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

using namespace rig;
using namespace std::chrono_literals;
using sim::exited;
using sim::match::call;

constexpr char kRestarting[] = "Vorlan: Run: failed, restarting...\n";
constexpr char kBrokenFrame[] = "SDataLink::tryRead: crc check failed\n";
constexpr char kNoDevice[] = "SManager: initBacked: SerialPhy::open: failed: No such file or directory\n";

using LineFault = FaultTest;

TEST_F(LineFault, lineHungUp)
{
    describe({"line hung up", "the restart line and the open failure once a second; the bus side goes on", 2s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    mRig.hangUp();
    ASSERT_TRUE(mRig.daemon().waitForOutput(kRestarting, kDeadline, 3));
    EXPECT_EQ(mRig.device().desktop().property("StatusQV").value, "0");
    mRig.device().line().reopen();
    mRig.connect();
    faultIsOver();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
    EXPECT_EQ(errOfMain(), repeated(kNoDevice, countOf(mRig.daemon().out(), kRestarting) - 1));
}

TEST_F(LineFault, deviceMissingAtTheStart)
{
    describe({"device missing at the start", "one line, ends with status 0; the next start with it serves", 5s});
    const std::string path = mRig.device().line().path();
    const std::filesystem::path device = std::filesystem::read_symlink(path);
    std::filesystem::remove(path);
    mRig.start();
    ASSERT_EQ(mRig.daemon().waitExit(), exited(0));
    EXPECT_EQ(errOfMain(), kNoDevice);
    std::filesystem::create_symlink(device, path);
    faultIsOver();
    mRig.start();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
}

TEST_F(LineFault, peerThatDoesNotRead)
{
    describe(
        {"peer that does not read", "a reply without progress is given up; requests are carried out meanwhile", 5s});
    mRig.device().sysd().setIpAddress(std::string(200'000, 'x'));
    ASSERT_NO_FATAL_FAILURE(serve());
    std::uint8_t number = mRig.peer().number();
    const std::pair<std::uint8_t, const char*> reads[] = {{wire::eRegRdIpAddr, "GetNetIPv4Addr"},
                                                          {wire::eRegRdParamText, "GetParamString"},
                                                          {wire::eRegRdParamWordA, "GetParamInt"}};
    for (const auto& [address, member] : reads) {
        const std::size_t from = mRig.timeline().mark();
        mRig.peer().sendFrame(number, readReg(address));
        number = qv::nextNumber(number);
        ASSERT_TRUE(mRig.timeline().waitFor(call(member), from));
    }
    faultIsOver();
    mRig.leftovers();
    mRig.restartPeer();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
}

TEST_F(LineFault, halfAFrameThenSilence)
{
    describe({"half a frame, then silence", "the next frame is a broken one; its repeat is served", 2s});
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_EQ(askText(), kText);
    mRig.port().write(qv::Bytes{0x06, 0x01, 0x02, 0x03});
    ASSERT_TRUE(mRig.readTimesOut());
    faultIsOver();
    mRig.peer().setTimeout(200ms);
    EXPECT_EQ(askText(), kText);
    recovered();
    EXPECT_EQ(errOfMain(), kBrokenFrame);
}

TEST_F(LineFault, peerRestarted)
{
    describe({"peer restarted in the middle of a request", "the new peer's first frame is accepted", 2s});
    ASSERT_NO_FATAL_FAILURE(serve());
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(askText(), kText);
    mRig.peer().sendFrame(mRig.peer().number(), readReg(wire::eRegRdParamText));
    mRig.restartPeer();
    faultIsOver();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
    EXPECT_EQ(errOfMain(), "");
}

TEST_F(LineFault, replyLost)
{
    describe({"reply lost", "the repeated request gets the stored reply and is not carried out again", 2s});
    ASSERT_NO_FATAL_FAILURE(serve());
    const std::uint8_t number = mRig.peer().number();
    mRig.peer().sendFrame(number, rig::call(wire::eMethodBeep));
    const qv::Bytes lost = mRig.receive(1);
    faultIsOver();
    mRig.peer().sendFrame(number, rig::call(wire::eMethodBeep));
    EXPECT_EQ(hex(mRig.receive(1, left())), hex(lost));
    recovered();
    EXPECT_EQ(mRig.timeline().count(call("Beep")), 1U);
}

TEST_F(LineFault, noise)
{
    describe({"20 kB of noise", "lines for broken frames, at most one for each delimiter", 5s});
    ASSERT_NO_FATAL_FAILURE(serve());
    std::mt19937_64 random(20);
    qv::Bytes bytes(20'000);
    for (std::uint8_t& byte : bytes)
        byte = static_cast<std::uint8_t>(random());
    ASSERT_TRUE(mRig.pour(bytes));
    faultIsOver();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
    // frames that wait are read in one piece, and a line serves them all; the last one ends with QV's first frame
    const std::size_t lines = countOf(errOfMain(), kBrokenFrame);
    EXPECT_EQ(errOfMain(), repeated(kBrokenFrame, lines));
    EXPECT_GE(lines, 1U);
    EXPECT_LE(lines, static_cast<std::size_t>(std::ranges::count(bytes, qv::kDelimiter)) + 1);
}

TEST_F(LineFault, flood)
{
    describe({"100 kB without a delimiter", "one line when the delimiter comes", 10s});
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_TRUE(mRig.pour(qv::Bytes(100'000, 0x33)));
    faultIsOver();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
    EXPECT_EQ(errOfMain(), kBrokenFrame);
}

/// The port itself fails, as no pseudo terminal does.
class PortFault : public FaultTest
{
protected:
    PortFault()
        : FaultTest(VORLAN_BREAKABLE)
    {}

    void serveBreakable()
    {
        sim::Daemon::tOptions options;
        options.environment["VORLAN_BREAK"] = orderPath();
        ASSERT_TRUE(mRig.serve(options));
    }

    void order(const std::string& what)
    {
        std::ofstream(orderPath() + ".new") << what;
        std::filesystem::rename(orderPath() + ".new", orderPath());
    }

    std::string orderPath() { return mRig.device().folder() + "/order"; }
};

TEST_F(PortFault, failsInAnUnknownWay)
{
    describe({"port fails in an unknown way", "the restart line; a fresh link", 5s});
    ASSERT_NO_FATAL_FAILURE(serveBreakable());
    faultIsOver();
    order("read-unknown");
    ASSERT_TRUE(mRig.daemon().waitForOutput(kRestarting, left()));
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
    EXPECT_EQ(errOfMain(), "");
}

TEST_F(PortFault, deviceMissingAtARestart)
{
    describe({"device missing at a restart", "the restart line and the open failure, again and again", 5s});
    ASSERT_NO_FATAL_FAILURE(serveBreakable());
    const std::string path = mRig.device().line().path();
    const std::filesystem::path device = std::filesystem::read_symlink(path);
    std::filesystem::remove(path);
    order("read-unknown");
    ASSERT_TRUE(mRig.daemon().waitForOutput(kRestarting, kDeadline, 3));
    std::filesystem::create_symlink(device, path);
    faultIsOver();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
    EXPECT_EQ(errOfMain(), repeated(kNoDevice, countOf(mRig.daemon().out(), kRestarting) - 1));
}

TEST_F(LineFault, anotherDevice)
{
    describe({"device replaced (unplugged and plugged in again)", "the restart line; the new device is opened", 2s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    mRig.hangUp();
    mRig.device().line().reopen();
    mRig.connect();
    faultIsOver();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
    EXPECT_EQ(countOf(mRig.daemon().out(), kRestarting), 1U);
    EXPECT_EQ(errOfMain(), "");
}

} // namespace
