#include "tests/faults/FaultTest.h"
#include "tests/faults/Strangers.h"

namespace {

using namespace rig;
using namespace std::chrono_literals;
using sim::tBehaviour;

constexpr std::size_t kNoise = 40; ///< bytes of a stranger's signal

/// Any user of the system bus may send signals to the daemon's connection there.
class StrangerFault : public OnEachBus
{
protected:
    pid_t pid() { return mRig.daemon().pid(); }
    Stranger& stranger() { return mStranger; }

private:
    Stranger mStranger{mRig.device().systemBus()};
};

INSTANTIATE_TEST_SUITE_P(Buses, StrangerFault, kEachBus, busName);

TEST_P(StrangerFault, signalsWithDescriptorsBreakNothing)
{
    describe({named("a stranger's 64 signals with 16 descriptors each"), "nothing", 2s});
    sim::Daemon::tOptions options;
    options.wrapper = {"/bin/sh", "-c", R"(ulimit -n 1024; exec "$0" "$@")"}; // as many as a service usually may have
    ASSERT_TRUE(mRig.serve(options));
    stranger().sendDescriptors(pid(), 64, 16);
    faultIsOver();
    EXPECT_EQ(askText(), kText);
    EXPECT_EQ(askText(), kText);
    recovered();
    EXPECT_EQ(errOfMain(), "");
}

TEST_P(StrangerFault, signalsDoNotKeepItFromStarting)
{
    describe({named("a stranger's 400 000 signals while the daemon waits for the system daemon"),
              "waiting lines; memory grows by 40 MB at most", 5s});
    mRig.device().sysd().setReady(false);
    mRig.start();
    ASSERT_TRUE(mRig.daemon().waitForOutput(kWaiting));
    rememberMemory();
    stranger().flood(pid(), 400'000, kNoise);
    const std::size_t waited = countOf(mRig.daemon().out(), kWaiting);
    ASSERT_TRUE(mRig.daemon().waitForOutput(kWaiting, kDeadline, waited + 3));
    expectMemoryWithin(40);
    faultIsOver();
    mRig.device().sysd().setReady(true);
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
    EXPECT_EQ(errOfMain(), "");
}

TEST_P(StrangerFault, signalsBetweenTwoRequestsCostNeitherTimeNorMemory)
{
    describe({named("a stranger's 200 000 signals between two requests"),
              "the next request waits; memory grows by 40 MB at most", 20s});
    ASSERT_TRUE(mRig.serve()); // with long calls: dbus-daemon itself takes seconds to drop what it had queued
    ASSERT_EQ(askText(), kText);
    rememberMemory();
    stranger().flood(pid(), 200'000, kNoise);
    faultIsOver();
    EXPECT_EQ(askText(), kText);
    recovered();
    EXPECT_EQ(askText(), kText);
    expectMemoryWithin(40);
    EXPECT_EQ(errOfMain(), "");
}

TEST_P(StrangerFault, callsWithoutAnswerDoNotUseUpTheConnection)
{
    describe({named("130 calls that the system daemon does not answer"), "empty values", 5s});
    sim::Daemon::tOptions options;
    options.arguments = {"-s", mRig.device().line().path(), "-b", "115200"};
    options.environment = {{"SYSTEMD_BUS_TIMEOUT", "30ms"}};
    ASSERT_TRUE(mRig.serve(options));
    mRig.device().sysd().setBehaviour("GetParamString", tBehaviour::silent());
    for (int i = 0; i < 130; ++i)
        ASSERT_EQ(askText(), kNoText);
    mRig.device().sysd().clearBehaviour();
    faultIsOver();
    ASSERT_TRUE(givesRightText());
    recovered();
}

} // namespace
