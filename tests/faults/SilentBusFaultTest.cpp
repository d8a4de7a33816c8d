#include "tests/faults/FaultTest.h"
#include "tests/faults/Strangers.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <future>
#include <optional>

namespace {

using namespace rig;
using namespace std::chrono_literals;
using sim::exited;
using sim::match::call;

/// A bus that accepts connections and says nothing.
class SilentBusFault : public FaultTest
{
protected:
    void silenceUserBus()
    {
        mRig.device().stopUserBus();
        mSilent.emplace(mRig.device().userBus());
    }
    void silenceSystemBus()
    {
        mRig.device().stopSystemBus();
        mSilent.emplace(mRig.device().systemBus());
    }
    /// So many opens wait for the bus to say something.
    void expectOpens(int count)
    {
        for (int i = 0; i < count; ++i)
            ASSERT_TRUE(mSilent->meetsSomebody());
    }
    bool tellStoryInTime()
    {
        mRig.peer().setTimeout(left() / 2); // it asks twice
        return mRig.tellStory();
    }
    /// The usual time-out of calls: what ends the opens is the stop.
    void serveWithLongCalls() { ASSERT_TRUE(mRig.serve()); }
    void expectPromptStop()
    {
        faultIsOver(); // to the stop it is no obstacle
        mRig.daemon().signal(SIGTERM);
        mRig.peer().sync();
        ASSERT_EQ(mRig.daemon().waitExit(10s), exited(0));
        recovered();
    }

    std::optional<SilentBus> mSilent;
};

TEST_F(SilentBusFault, userBusDelaysTheStartOfTheUpdateByItsTimeOut)
{
    describe({"user bus says nothing when the automatic update is to start",
              "QV's reply waits for the bus library's time-out (25 s; 2 s in this test)", 8s});
    mRig.device().sysd().setCfg("UpdateTrigger", 1);
    silenceUserBus();
    ASSERT_NO_FATAL_FAILURE(serve());
    faultIsOver(); // to the link it is no obstacle
    ASSERT_TRUE(tellStoryInTime());
    EXPECT_EQ(askText(), kText);
    recovered();
}

TEST_F(SilentBusFault, userBusDelaysTheVisualisationByItsTimeOut)
{
    describe({"user bus says nothing when the logos are to start",
              "one line after the bus library's time-out (25 s; 2 s in this test); visualisation", 8s});
    silenceUserBus();
    ASSERT_NO_FATAL_FAILURE(serve());
    faultIsOver(); // to the visualisation it is no obstacle
    ASSERT_TRUE(tellStoryInTime());
    ASSERT_TRUE(mRig.timeline().waitFor(call("LoadConfig"), 0, left()));
    recovered();
    EXPECT_EQ(countOf(errOfMain(), "SDBusLogoHandler: Failed to "), 1U);
}

TEST_F(SilentBusFault, userBusTakesOneDelayedExitWithIt)
{
    describe({"user bus says nothing when an exit is due",
              "nothing; the next exit waits for the bus library's time-out at most (25 s; 2 s in this test)", 15s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    ASSERT_TRUE(mRig.device().desktop().showQmx().ok);
    silenceUserBus();
    ASSERT_NO_FATAL_FAILURE(expectOpens(2)); // the service object and, two seconds later, the exit
    EXPECT_EQ(askText(), kText);
    mRig.device().startUserBus(); // the exit goes on waiting for the silent one
    faultIsOver();
    ASSERT_TRUE(mRig.device().desktop().waitForService(left()));
    ASSERT_TRUE(mRig.device().desktop().showQmx().ok);
    ASSERT_TRUE(mRig.timeline().waitFor(call("Exit"), 0, left()));
    recovered();
}

TEST_F(SilentBusFault, userBusDelaysTheServiceByItsTimeOut)
{
    describe({"user bus says nothing when the service object is to be there",
              "two lines for each attempt after the bus library's time-out (25 s; 2 s in this test)", 10s});
    silenceUserBus();
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_NO_FATAL_FAILURE(expectOpens(1));
    ASSERT_TRUE(mRig.daemon().waitForOutput(kRetrying, 10s));
    mRig.device().startUserBus();
    faultIsOver();
    ASSERT_TRUE(mRig.device().desktop().waitForService(left()));
    recovered();
}

TEST_F(SilentBusFault, systemBusDelaysTheStartByItsTimeOut)
{
    describe(
        {"system bus says nothing at the start", "waiting lines, one for each time-out (25 s; 2 s in this test)", 5s});
    silenceSystemBus();
    sim::Daemon::tOptions options;
    options.environment = kShortCalls;
    mRig.start(options);
    ASSERT_TRUE(mRig.daemon().waitForOutput(kWaiting, 10s));
    mSilent.reset(); // what waits for it fails at once
    mRig.device().startSystemBus();
    faultIsOver();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
}

TEST_F(SilentBusFault, serviceObjectThatIsBeingOpenedEndsWithTheStop)
{
    describe({"stop while the service object opens a user bus that says nothing", "ends with status 0", 5s});
    silenceUserBus();
    ASSERT_NO_FATAL_FAILURE(serveWithLongCalls());
    ASSERT_NO_FATAL_FAILURE(expectOpens(1));
    ASSERT_TRUE(mRig.waitsForRequest());
    expectPromptStop();
}

TEST_F(SilentBusFault, logosThatAreBeingOpenedEndWithTheStop)
{
    describe({"stop while the logos open a user bus that says nothing", "ends with status 0", 5s});
    silenceUserBus();
    ASSERT_NO_FATAL_FAILURE(serveWithLongCalls());
    ASSERT_TRUE(mRig.tellStory());
    ASSERT_NO_FATAL_FAILURE(expectOpens(2)); // the service object and the logos
    ASSERT_TRUE(mRig.waitsForRequest());
    expectPromptStop();
}

TEST_F(SilentBusFault, updateThatIsBeingStartedEndsWithTheStop)
{
    describe({"stop while the update opens a user bus that says nothing", "ends with status 0", 5s});
    mRig.device().sysd().setCfg("UpdateTrigger", 1);
    silenceUserBus();
    ASSERT_NO_FATAL_FAILURE(serveWithLongCalls());
    ASSERT_TRUE(mRig.tellConditions());
    mRig.peer().setTimeout(4s);
    auto told = std::async(std::launch::async, [&] { return mRig.ask(rig::call(wire::eMethodApplyConfig)); });
    ASSERT_NO_FATAL_FAILURE(expectOpens(3)); // the service object, the logos and the update
    faultIsOver();                           // to the stop it is no obstacle
    mRig.daemon().signal(SIGTERM);
    ASSERT_EQ(mRig.daemon().waitExit(8s), exited(0));
    recovered();
    EXPECT_EQ(told.get(), "02"); // the request in hand was finished
}

TEST_F(SilentBusFault, delayedExitThatIsBeingOpenedEndsWithTheStop)
{
    describe({"stop while a delayed exit opens a user bus that says nothing", "ends with status 0", 5s});
    ASSERT_NO_FATAL_FAILURE(serveWithLongCalls());
    ASSERT_TRUE(mRig.device().desktop().waitForService());
    ASSERT_TRUE(mRig.device().desktop().showQmx().ok);
    silenceUserBus();
    ASSERT_NO_FATAL_FAILURE(expectOpens(2)); // the service object and, two seconds later, the exit
    ASSERT_TRUE(mRig.waitsForRequest());
    expectPromptStop();
}

/// Services that do not answer hold up a stop no longer than a bus that says nothing.
TEST_F(SilentBusFault, logoHandlerThatDoesNotAnswerEndsWithTheStop)
{
    describe({"stop while the logo handler does not answer", "ends with status 0", 5s});
    mRig.device().logo().setBehaviour("*", sim::tBehaviour::silent());
    ASSERT_NO_FATAL_FAILURE(serveWithLongCalls());
    ASSERT_TRUE(mRig.tellStory());
    ASSERT_TRUE(mRig.timeline().waitFor(call("Start")));
    ASSERT_TRUE(mRig.waitsForRequest());
    expectPromptStop();
}

TEST_F(SilentBusFault, exitThatIsNotAnsweredEndsWithTheStop)
{
    describe({"stop while the idle application does not answer", "ends with status 0", 5s});
    mRig.device().idle().setBehaviour("*", sim::tBehaviour::silent());
    ASSERT_NO_FATAL_FAILURE(serveWithLongCalls());
    ASSERT_TRUE(mRig.device().desktop().waitForService());
    ASSERT_TRUE(mRig.device().desktop().showQmx().ok);
    ASSERT_TRUE(mRig.timeline().waitFor(call("Exit")));
    ASSERT_TRUE(mRig.waitsForRequest());
    expectPromptStop();
}

/// A bus that says more than it is asked when somebody connects.
class TalkativeBusFault : public FaultTest
{
protected:
    /// In the bus's place, until it is given up.
    static void meet(const sim::PrivateBus& bus)
    {
        unlink(bus.socket().c_str());
        const sim::UniqueFd listener = sim::listenAt(bus.socket());
        pollfd poller{listener.get(), POLLIN, 0};
        ASSERT_EQ(poll(&poller, 1, static_cast<int>(sim::kDeadline.count())), 1);
        const sim::UniqueFd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        ASSERT_GT(send(peer.get(), kTooMuch, sizeof(kTooMuch) - 1, MSG_NOSIGNAL), 0);
        poller = {peer.get(), POLLRDHUP, 0};
        ASSERT_EQ(poll(&poller, 1, static_cast<int>(sim::kDeadline.count())), 1);
    }

    static constexpr char kTooMuch[] = "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n";
};

TEST_F(TalkativeBusFault, userBusIsRefused)
{
    describe({"user bus says more than it is asked", "no service object", 10s});
    mRig.device().stopUserBus();
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_NO_FATAL_FAILURE(meet(mRig.device().userBus()));
    mRig.peer().setTimeout(2s);
    ASSERT_EQ(askText(), kText);
    mRig.device().startUserBus();
    faultIsOver();
    ASSERT_TRUE(mRig.device().desktop().waitForService(left()));
    recovered();
}

TEST_F(TalkativeBusFault, systemBusIsRefused)
{
    describe({"system bus says more than it is asked", "waiting lines", 5s});
    mRig.device().stopSystemBus();
    mRig.start();
    ASSERT_NO_FATAL_FAILURE(meet(mRig.device().systemBus()));
    mRig.device().startSystemBus();
    faultIsOver();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
}

} // namespace
