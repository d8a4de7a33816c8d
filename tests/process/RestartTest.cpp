#include "tests/process/RigTest.h"

#include <sysexits.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace {

using namespace rig;
using sim::exited;

constexpr char kRestarting[] = "Vorlan: Run: failed, restarting...\n";
constexpr char kNoDevice[] = "SManager: initBacked: SerialPhy::open: failed: No such file or directory\n";

/// The daemon's link fails.
class Restart : public RigTest
{
protected:
    Restart()
        : RigTest(VORLAN_BREAKABLE)
    {}

    void serve()
    {
        sim::Daemon::tOptions options;
        options.environment["VORLAN_BREAK"] = orderPath();
        ASSERT_TRUE(mRig.serve(options));
        ASSERT_TRUE(mRig.device().desktop().waitForService());
        EXPECT_EQ(mRig.ask(readReg(wire::eRegRdParamText)), "00 31 2e 34 2e 32 00");
    }

    /// Whole at once: the daemon may look at any moment.
    void order(const std::string& what)
    {
        std::ofstream(orderPath() + ".new") << what;
        std::filesystem::rename(orderPath() + ".new", orderPath());
    }

    bool orderDone()
    {
        const auto end = Clock::now() + kDeadline;
        while (std::filesystem::exists(orderPath()) && Clock::now() < end)
            mRig.daemon().waitExit(milliseconds{5});
        return !std::filesystem::exists(orderPath());
    }

    bool restarts(std::size_t times) { return mRig.daemon().waitForOutput(kRestarting, kDeadline, times); }

    void expectWholeLife(std::size_t times)
    {
        EXPECT_EQ(mRig.stop(), exited(0));
        EXPECT_EQ(mRig.daemon().out(), kStarted + repeated(kRestarting, times) + kStopped);
    }

    std::string orderPath() { return mRig.device().folder() + "/order"; }
};

TEST_F(Restart, writesItsLineOnceForEachFailureAndServesOn)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    for (std::size_t i = 1; i <= 3; ++i) {
        order("read-unknown");
        ASSERT_TRUE(restarts(i));
        EXPECT_TRUE(mRig.serves());
    }
    expectWholeLife(3);
    EXPECT_EQ(mRig.daemon().err(), std::string(kRetrying) + kStopping);
}

TEST_F(Restart, beginsWithAFreshLinkThatKnowsNoReply)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    order("read-unknown");
    ASSERT_TRUE(restarts(1));
    mRig.peer().sendFrame(mRig.peer().number(), readReg(wire::eRegRdConst0));
    EXPECT_EQ(hex(mRig.receive(1)), "02 11 03 2d 4d 00"); // the first reset frame of a link
}

TEST_F(Restart, followsAPortThatIsFoundClosed)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    order("read-closed");
    ASSERT_TRUE(restarts(1));
    EXPECT_TRUE(mRig.serves());
    expectWholeLife(1);
}

TEST_F(Restart, followsAFailedWriteWhenTheReadTimesOut)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    order("write-unknown");
    mRig.peer().sendFrame(mRig.peer().number(), readReg(wire::eRegRdConst0));
    ASSERT_TRUE(orderDone());
    ASSERT_TRUE(restarts(1));
    EXPECT_TRUE(mRig.serves());
    expectWholeLife(1);
}

/// A failure that leaves the port open is none of the link's: the reply is lost, and QV gets it by repeating.
TEST_F(Restart, doesNotFollowAFailureThatLeavesThePortOpen)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    order("read-serial");
    ASSERT_TRUE(orderDone());
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdParamText)), "00 31 2e 34 2e 32 00");
    const std::uint8_t number = mRig.peer().number();
    order("write-serial");
    mRig.peer().sendFrame(number, readReg(wire::eRegRdStartCode));
    ASSERT_TRUE(orderDone());
    mRig.peer().sendFrame(number, readReg(wire::eRegRdStartCode));
    EXPECT_EQ(hex(mRig.receive(1)), hex(qv::toWire(qv::buildFrame(qv::nextNumber(number), qv::Bytes{0, 0}))));
    expectWholeLife(0);
}

TEST_F(Restart, takesDeviceAndRateOnce)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    mRig.device().sysd().setCfg("VorlanDev", "/dev/nowhere");
    order("read-unknown");
    ASSERT_TRUE(restarts(1));
    EXPECT_TRUE(mRig.serves());
    EXPECT_EQ(mRig.timeline().count(sim::match::call("GetCfgString", "\"VorlanDev\"")), 1U);
}

TEST_F(Restart, doesNotStartTheVisualisationAgain)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_TRUE(mRig.playStory());
    order("read-unknown");
    ASSERT_TRUE(restarts(1));
    ASSERT_TRUE(mRig.serves());
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdCfgApplied)), "00 01");
    ASSERT_TRUE(mRig.tellStory()); // ApplyConfig applies it again, without the logos
    for (const auto& [member, times] : {std::pair{"Start", 1U}, {"ConfigureNetwork", 1U}, {"LoadConfig", 2U}})
        EXPECT_EQ(mRig.timeline().count(sim::match::call(member)), times) << member;
    EXPECT_EQ(mRig.stop(), exited(0));
}

TEST_F(Restart, aRateAloneMeansTheFirstSerialPort)
{
    order("init");
    sim::Daemon::tOptions options;
    options.environment["VORLAN_BREAK"] = orderPath();
    options.arguments = {"-b", "115200"};
    mRig.start(options);
    EXPECT_EQ(mRig.daemon().waitExit(), exited(0));
    EXPECT_EQ(linesWithout(mRig.daemon().err(), "SDBusManager: "), "SManager: initBacked: /dev/ttyS0\n");
}

/// The supervisor begins it anew.
TEST_F(Restart, doesNotFollowAnExceptionThatNobodyCatches)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    order("read-uncaught");
    EXPECT_EQ(mRig.daemon().waitExit(), exited(EX_SOFTWARE));
    EXPECT_EQ(mRig.daemon().out(), kStarted);
    EXPECT_EQ(mRig.daemon().err(), std::string(kRetrying) + "vorlan: ended by std::bad_alloc\n");
}

TEST_F(Restart, doesNotFollowWhatIsNoExceptionOfTheStandardLibrary)
{
    order("init-textless");
    sim::Daemon::tOptions options;
    options.environment["VORLAN_BREAK"] = orderPath();
    mRig.start(options);
    EXPECT_EQ(mRig.daemon().waitExit(), exited(EX_SOFTWARE));
    EXPECT_EQ(linesWithout(mRig.daemon().err(), "SDBusManager: "), "vorlan: ended by an exception without a text\n");
}

TEST_F(Restart, goesOnOnceASecondWhileTheDeviceIsMissing)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    const std::string path = mRig.device().line().path();
    const std::filesystem::path device = std::filesystem::read_symlink(path);
    std::filesystem::remove(path);
    order("read-unknown");
    ASSERT_TRUE(restarts(1));
    const auto from = Clock::now();
    ASSERT_TRUE(restarts(4));
    EXPECT_GE(Clock::now() - from, milliseconds{1500}); // each has waited its second: no spinning loop
    std::filesystem::create_symlink(device, path);
    EXPECT_TRUE(mRig.serves());
    const std::size_t times = countOf(mRig.daemon().out(), kRestarting);
    expectWholeLife(times);
    EXPECT_EQ(mRig.daemon().err(), kRetrying + repeated(kNoDevice, times - 1) + kStopping);
}

/// The read under way waits out its second; the next one finds the line still hung up and gives it up.
TEST_F(Restart, followsAHangUpThatOutlastsARead)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    mRig.hangUp();
    const auto from = Clock::now();
    mRig.device().line().reopen();
    mRig.connect();
    EXPECT_TRUE(mRig.serves());
    EXPECT_LE(Clock::now() - from, milliseconds{2000});
    expectWholeLife(1);
    EXPECT_EQ(mRig.daemon().err(), std::string(kRetrying) + kStopping);
}

TEST_F(Restart, goesOnOnceASecondWhileTheLineIsHungUp)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    mRig.hangUp();
    ASSERT_TRUE(restarts(1));
    const auto from = Clock::now();
    ASSERT_TRUE(restarts(4));
    EXPECT_GE(Clock::now() - from, milliseconds{2500}); // each has waited its second: no spinning loop
    mRig.device().line().reopen();
    mRig.connect();
    EXPECT_TRUE(mRig.serves());
    const std::size_t times = countOf(mRig.daemon().out(), kRestarting);
    expectWholeLife(times);
    EXPECT_EQ(mRig.daemon().err(), kRetrying + repeated(kNoDevice, times - 1) + kStopping);
}

/// The stop takes effect after a restart too: it is looked at after each pass.
TEST_F(Restart, isTheEndAfterASignal)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_TRUE(mRig.waitsForRequest());
    mRig.daemon().signal(SIGTERM);
    order("read-unknown");
    EXPECT_EQ(mRig.daemon().waitExit(), exited(0));
    EXPECT_EQ(mRig.daemon().out(), std::string(kStarted) + kRestarting + kStopped);
}

} // namespace
