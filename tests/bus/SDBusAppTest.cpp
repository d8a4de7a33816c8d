#include "dbus/SDBusApp.h"

#include "tests/bus/BusTest.h"
#include "tests/support/NoMoreThreads.h"

#include <cstdlib>
#include <future>
#include <memory>
#include <thread>

using sim::milliseconds;
using sim::tBehaviour;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

class SDBusAppTest : public BusTest
{
protected:
    explicit SDBusAppTest(const char* callTimeOut = kPatient)
        : BusTest(callTimeOut)
    {}

    bool waitForExits(std::size_t count)
    {
        return mDevice.timeline().waitForCount(sim::match::call("Exit").to("idle"), count);
    }
};

class HastySDBusAppTest : public SDBusAppTest
{
protected:
    HastySDBusAppTest()
        : SDBusAppTest(kHasty)
    {}
};

} // namespace

TEST_F(SDBusAppTest, eachOperationCallsItsMember)
{
    SDBusApp app;
    app.appExit();
    app.appDisableAnimation();
    app.appSetTextMsg("Loading ...");
    app.appDBusCall("Exit", "");
    app.appDBusCall("SetTextMsg", "\xc3\xa4");
    EXPECT_THAT(calls(), ElementsAre("idle.Exit", "idle.DisableAnimation", "idle.SetTextMsg s \"Loading ...\"",
                                     "idle.Exit", "idle.SetTextMsg s \"\xc3\xa4\""));
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusAppTest, emptyTextIsNoArgumentAtAll)
{
    SDBusApp app;
    app.appSetTextMsg("");
    const auto events = mDevice.timeline().events();
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_EQ(events[0].member, "SetTextMsg");
    EXPECT_EQ(events[0].signature, "");
    EXPECT_EQ(events[0].answer, "error org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusAppTest, veryLongTextPasses)
{
    SDBusApp app;
    const std::string text(60'000, 't');
    app.appSetTextMsg(text);
    EXPECT_THAT(calls(), ElementsAre("idle.SetTextMsg s \"" + text + "\""));
}

TEST_F(SDBusAppTest, textThatIsNotUtf8IsSilentlyNotSent)
{
    SDBusApp app;
    app.appSetTextMsg("\xff");
    EXPECT_THAT(calls(), IsEmpty());
    app.appSetTextMsg("next");
    EXPECT_THAT(calls(), ElementsAre("idle.SetTextMsg s \"next\""));
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusAppTest, failuresOfTheApplicationAreSilent)
{
    SDBusApp app;
    mDevice.idle().setBehaviour("*", tBehaviour::error());
    app.appExit();
    mDevice.idle().setBehaviour("*", tBehaviour::crash(milliseconds{0}));
    app.appExit();
    mDevice.idle().comeBack();
    mDevice.idle().goAway();
    app.appExit();
    app.appDBusCall("NoSuchMethod", "");
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(HastySDBusAppTest, silentApplicationIsGivenUpSilently)
{
    SDBusApp app;
    mDevice.idle().setBehaviour("*", tBehaviour::silent());
    app.appExit();
    app.appSetTextMsg("next");
    EXPECT_THAT(calls(), ElementsAre("idle.Exit", "idle.SetTextMsg s \"next\""));
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusAppTest, aBusThatCannotBeOpenedLeavesALine)
{
    SDBusApp app;
    mDevice.stopUserBus();
    app.appExit();
    EXPECT_EQ(mStderr.text(), "Vorlan: Failed to open dbus\n");
    app.appSetTextMsg("text");
    EXPECT_THAT(mStderr.writes(), ElementsAre("Vorlan: Failed to open dbus\n", "Vorlan: Failed to open dbus\n"));
}

TEST_F(SDBusAppTest, opensTheBusAnewForEachCall)
{
    SDBusApp app;
    app.appExit();
    mDevice.stopUserBus();
    mDevice.startUserBus();
    app.appDisableAnimation();
    EXPECT_THAT(calls(), ElementsAre("idle.Exit", "idle.DisableAnimation"));
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusAppTest, aCallWaitsForItsAnswer)
{
    SDBusApp app;
    mDevice.idle().setBehaviour("*", tBehaviour::delayed(milliseconds{50}));
    app.appExit();
    const auto events = mDevice.timeline().events();
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_TRUE(events[0].answer.has_value());
}

TEST_F(SDBusAppTest, callsOfSeveralThreadsFollowOneAnother)
{
    constexpr int kThreads = 3;
    constexpr int kRounds = 8;
    std::mutex mutex;
    std::string order; // a letter for each call that came in and each answer that went out
    mDevice.timeline().listen([&](const sim::tEvent&, bool later) {
        const std::lock_guard lock(mutex);
        order += later ? 'a' : 'c';
    });
    mDevice.idle().setBehaviour("*", tBehaviour::delayed(milliseconds{3}));
    std::string expected;
    {
        SDBusApp app;
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&] {
                for (int round = 0; round < kRounds; ++round)
                    app.appSetTextMsg("text");
            });
            app.delayedExit(0);
        }
        for (std::thread& thread : threads)
            thread.join();
        ASSERT_TRUE(waitForExits(kThreads));
    }
    mDevice.timeline().listen({});
    for (int i = 0; i < kThreads * (kRounds + 1); ++i)
        expected += "ca";
    const std::lock_guard lock(mutex);
    EXPECT_EQ(order, expected);
}

// ---- The delayed exit

TEST_F(SDBusAppTest, delayedExitOfNoSecondsExitsAtOnce)
{
    SDBusApp app;
    for (const long long seconds : {0LL, -1LL, -9223372036854775807LL - 1})
        app.delayedExit(seconds);
    EXPECT_TRUE(waitForExits(3));
    EXPECT_THAT(calls(), Each("idle.Exit"));
}

TEST_F(SDBusAppTest, delayedExitReturnsBeforeTheCall)
{
    SDBusApp app;
    mDevice.idle().setBehaviour("Exit", tBehaviour::delayed(milliseconds{200}));
    app.delayedExit(0);
    EXPECT_FALSE(mDevice.timeline().find([](const sim::tEvent& event) { return event.answer.has_value(); }));
    EXPECT_TRUE(waitForExits(1));
}

TEST_F(SDBusAppTest, twoDelayedExitsExitTwiceNotBeforeTheirTime)
{
    SDBusApp app;
    const auto before = sim::Clock::now();
    app.delayedExit(4);
    app.delayedExit(4);
    EXPECT_THAT(calls(), IsEmpty());
    ASSERT_TRUE(waitForExits(2));
    EXPECT_GE(sim::Clock::now() - before, std::chrono::seconds(4));
    EXPECT_THAT(calls(), ElementsAre("idle.Exit", "idle.Exit"));
}

TEST_F(SDBusAppTest, laterDelayedExitComesLater)
{
    SDBusApp app;
    app.delayedExit(1);
    ASSERT_TRUE(waitForExits(1));
    app.delayedExit(1);
    EXPECT_THAT(calls(), SizeIs(1));
    EXPECT_TRUE(waitForExits(2));
}

TEST_F(SDBusAppTest, EachOfManyDelayedExitsIsMade)
{
    constexpr std::size_t kExits = 200;
    SDBusApp app;
    mDevice.idle().setBehaviour("Exit", tBehaviour::held().times(1));
    for (std::size_t i = 0; i < kExits; ++i)
        app.delayedExit(0); // none of them ends before the first one has its answer
    ASSERT_TRUE(waitForExits(1));
    mDevice.idle().release();
    EXPECT_TRUE(waitForExits(kExits));
}

TEST_F(SDBusAppTest, NobodyCanQueueDelayedExitsWithoutEnd)
{
    SDBusApp app;
    for (std::size_t i = 0; i < SDBusApp::kMaxDelayedExits; ++i)
        app.delayedExit(3600);
    app.delayedExit(0);
    const bool made = mDevice.timeline().waitFor(sim::match::call("Exit").to("idle"), 0, milliseconds{200}).has_value();
    EXPECT_FALSE(made);
}

TEST_F(SDBusAppTest, AnEarlierExitIsNotHeldUpByALaterOne)
{
    SDBusApp app;
    app.delayedExit(3600);
    app.delayedExit(0);
    EXPECT_TRUE(waitForExits(1));
}

// ---- Stop and end

TEST_F(SDBusAppTest, stopGivesPendingExitsUp)
{
    auto app = std::make_unique<SDBusApp>();
    for (int i = 0; i < 5; ++i)
        app->delayedExit(3600);
    app->stop();
    auto ended = std::async(std::launch::async, [&] { app.reset(); });
    EXPECT_EQ(ended.wait_for(sim::kDeadline), std::future_status::ready);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusAppTest, afterStopNoCallBegins)
{
    SDBusApp app;
    app.stop();
    app.appExit();
    app.appSetTextMsg("text");
    app.delayedExit(0);
    app.stop();
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusAppTest, endWaitsForTheCallUnderWay)
{
    auto app = std::make_unique<SDBusApp>();
    mDevice.idle().setBehaviour("Exit", tBehaviour::delayed(milliseconds{200}));
    app->delayedExit(0);
    app->delayedExit(0);
    app->delayedExit(3600);
    ASSERT_TRUE(waitForExits(1));
    app.reset();
    const auto events = mDevice.timeline().events();
    ASSERT_THAT(events, SizeIs(1)) << "the second one had not begun";
    EXPECT_TRUE(events[0].answer.has_value());
}

TEST_F(SDBusAppTest, delayedExitIsMadeByTheCallerWhenNoThreadCanBeHad)
{
    SDBusApp app;
    const NoMoreThreads guard;
    app.delayedExit(1);
    EXPECT_THAT(calls(), ElementsAre("idle.Exit"));
    EXPECT_EQ(mStderr.text(), "");
}
