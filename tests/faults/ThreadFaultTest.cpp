#include "tests/faults/FaultTest.h"
#include "tests/faults/Strangers.h"

#include <sys/resource.h>

#include <filesystem>

namespace {

using namespace rig;
using namespace std::chrono_literals;
using sim::exited;
using sim::match::call;

/// No thread is to be had, for each needs room for its stack: the daemon has been given no more.
class ThreadFault : public FaultTest
{
protected:
    void takeThreadsAway()
    {
        ASSERT_EQ(prlimit(pid(), RLIMIT_AS, nullptr, &mBefore), 0);
        constexpr rlim_t kRoom = 4'000'000; // for all else; a stack takes 8 MB
        const rlimit noMore{memoryOf(pid(), "VmSize") * 1024 + kRoom, mBefore.rlim_max};
        ASSERT_EQ(prlimit(pid(), RLIMIT_AS, &noMore, nullptr), 0);
    }
    void giveThreadsBack() { ASSERT_EQ(prlimit(pid(), RLIMIT_AS, &mBefore, nullptr), 0); }
    std::ptrdiff_t threads()
    {
        const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid()) + "/task");
        return std::distance(begin(tasks), end(tasks));
    }
    /// Before the first of its threads is wanted.
    void startWithoutThreads()
    {
        mRig.device().sysd().setReady(false);
        mRig.start();
        ASSERT_TRUE(mRig.daemon().waitForOutput(kWaiting));
        ASSERT_EQ(threads(), 1);
        ASSERT_NO_FATAL_FAILURE(takeThreadsAway());
        mRig.device().sysd().setReady(true);
        ASSERT_TRUE(mRig.inStep());
    }

private:
    pid_t pid() { return mRig.daemon().pid(); }
    rlimit mBefore{};
};

TEST_F(ThreadFault, cutsTheLogosShort)
{
    describe({"no thread to be had at the gate", "the visualisation without logos, its reply after the exit", 8s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    ASSERT_EQ(askText(), kText); // the thread of the replies is there
    ASSERT_NO_FATAL_FAILURE(takeThreadsAway());
    const std::ptrdiff_t before = threads();
    faultIsOver(); // to the visualisation it is no obstacle
    ASSERT_TRUE(mRig.playStory());
    recovered();
    EXPECT_EQ(askText(), kText);
    EXPECT_EQ(threads(), before);
    EXPECT_EQ(mRig.timeline().count(call("Start").to("logo")), 0U);
    EXPECT_TRUE(mRig.timeline().waitFor(sim::match::signal("LogosFinished").to("vorlan")));
    EXPECT_TRUE(mRig.timeline().waitFor(call("Exit"))); // made by the controller itself
    EXPECT_EQ(mRig.stop(), exited(0));
}

TEST_F(ThreadFault, delaysTheServiceObjectWhileQVIsServed)
{
    describe({"no thread to be had from the start on, QV talking",
              "replies by the controller's thread, no service object; it is tried again each second", 5s});
    ASSERT_NO_FATAL_FAILURE(startWithoutThreads());
    EXPECT_EQ(askText(), kText);
    EXPECT_EQ(threads(), 1);
    EXPECT_EQ(mRig.daemon().err(), "");
    ASSERT_NO_FATAL_FAILURE(giveThreadsBack());
    faultIsOver();
    ASSERT_TRUE(mRig.serves(left()));
    ASSERT_TRUE(mRig.device().desktop().waitForService(left()));
    recovered();
    EXPECT_EQ(mRig.stop(), exited(0));
}

TEST_F(ThreadFault, delaysTheServiceObjectOnASilentLine)
{
    describe({"no thread to be had from the start on, the line silent", "no service object", 5s});
    ASSERT_NO_FATAL_FAILURE(startWithoutThreads());
    ASSERT_TRUE(mRig.readTimesOut());
    EXPECT_EQ(threads(), 1);
    ASSERT_NO_FATAL_FAILURE(giveThreadsBack());
    faultIsOver();
    ASSERT_TRUE(mRig.device().desktop().waitForService(left()));
    recovered();
}

TEST_F(ThreadFault, isNoObstacleToTheWholeStory)
{
    describe({"no thread to be had from the start to the stop", "no logos, no service object", 15s});
    ASSERT_NO_FATAL_FAILURE(startWithoutThreads());
    faultIsOver(); // to the visualisation it is no obstacle
    ASSERT_TRUE(mRig.playStory());
    EXPECT_EQ(threads(), 1);
    ASSERT_TRUE(mRig.timeline().waitFor(call("Exit")));
    EXPECT_EQ(mRig.stop(), exited(0));
    recovered();
    EXPECT_EQ(mRig.daemon().err(), "");
}

} // namespace
