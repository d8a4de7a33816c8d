#include "tests/faults/FaultTest.h"

#include <csignal>
#include <sstream>

namespace {

using namespace rig;
using namespace std::chrono_literals;
using sim::exited;
using sim::match::call;

constexpr char kNoUserBus[] = "SDBusManager: Failed to open dbus system session: ";

class BusFault : public FaultTest
{
protected:
    void startAgain()
    {
        sim::Daemon::tOptions options;
        options.environment = kShortCalls;
        mRig.start(options);
    }

    /// Each attempt of the service that fails writes why, and that it tries again.
    void expectTwoLinesForEachAttempt()
    {
        bool failed = false;
        std::size_t attempts = 0;
        std::istringstream err(mRig.daemon().err());
        for (std::string line; std::getline(err, line);) {
            const bool again = line + "\n" == kRetrying;
            const bool failure = line.starts_with(kNoUserBus);
            EXPECT_FALSE(failed && failure) << "two failures in a row";
            attempts += failed && again ? 1 : 0;
            failed = failure || (failed && !again);
        }
        EXPECT_GE(attempts, 2U);
    }

    /// The service object answers, with what QV reported.
    bool serviceServes() { return mRig.device().desktop().waitForService(left()); }
};

TEST_F(BusFault, systemBusLate)
{
    describe({"system bus late at the start", "one line, then waiting lines until it is there", 5s});
    mRig.device().stopSystemBus();
    startAgain();
    ASSERT_TRUE(mRig.daemon().waitForOutput(kWaiting, kDeadline, 3));
    EXPECT_EQ(errOfMain(), "SDBusSysD: failed to open DBus\n");
    mRig.device().startSystemBus();
    faultIsOver();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
    EXPECT_EQ(errOfMain(), "SDBusSysD: failed to open DBus\n");
}

TEST_F(BusFault, systemBusLostWhileTheDaemonWaits)
{
    describe({"system bus lost and back while the daemon waits for the system daemon", "waiting lines", 5s});
    mRig.device().sysd().setReady(false);
    startAgain();
    ASSERT_TRUE(mRig.daemon().waitForOutput(kWaiting, kDeadline, 3));
    mRig.device().stopSystemBus();
    ASSERT_TRUE(mRig.daemon().waitForOutput(kWaiting, kDeadline, countOf(mRig.daemon().out(), kWaiting) + 3));
    mRig.device().startSystemBus();
    mRig.device().sysd().setReady(true);
    faultIsOver();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
    EXPECT_EQ(errOfMain(), "");
}

TEST_F(BusFault, systemBusStalled)
{
    describe({"system bus stalled", "empty values after the bus library's time-out (25 s; 2 s in this test)", 2s});
    ASSERT_NO_FATAL_FAILURE(serve());
    kill(mRig.device().systemBus().pid(), SIGSTOP);
    EXPECT_EQ(askText(), kNoText);
    EXPECT_EQ(askZero(), kZero);
    kill(mRig.device().systemBus().pid(), SIGCONT);
    faultIsOver();
    EXPECT_EQ(askText(), kText);
    recovered();
}

TEST_F(BusFault, userBusAbsent)
{
    describe({"user bus absent",
              "two lines for each attempt; the link is served, the visualisation starts without logos", 5s});
    mRig.device().stopUserBus();
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_TRUE(mRig.daemon().waitForOutput(kNoUserBus, kDeadline, 2));
    faultIsOver(); // to the visualisation it is no obstacle
    ASSERT_TRUE(mRig.tellStory());
    ASSERT_TRUE(mRig.timeline().waitFor(call("LoadConfig"), 0, left()));
    recovered();
    EXPECT_TRUE(mRig.daemon().waitForOutput("SDBusLogoHandler: Failed to open user dbus: "));
    EXPECT_TRUE(mRig.daemon().waitForOutput("Vorlan: Failed to open dbus\n")); // the exit, four seconds later
    EXPECT_THAT(errOfMain(), ::testing::StartsWith("SDBusLogoHandler: Failed to open user dbus: "));
    expectTwoLinesForEachAttempt();
}

TEST_F(BusFault, userBusLate)
{
    describe({"user bus late", "two lines for each attempt until it is there", 5s});
    mRig.device().stopUserBus();
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_TRUE(mRig.daemon().waitForOutput(kNoUserBus, kDeadline, 2));
    EXPECT_EQ(mRig.ask(writeReg(wire::eRegWrQVIpAddr, text("10.0.0.5"))), "01");
    mRig.device().startUserBus();
    faultIsOver();
    ASSERT_TRUE(serviceServes());
    recovered();
    expectTwoLinesForEachAttempt();
    EXPECT_EQ(mRig.device().desktop().property("IpAddrQV").raw, "10.0.0.5");
}

TEST_F(BusFault, userBusLost)
{
    describe({"user bus lost", "two lines for each attempt until it is back; the link is served", 5s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    mRig.device().stopUserBus();
    EXPECT_EQ(mRig.ask(writeReg(wire::eRegWrQVIpAddr, text("10.0.0.5"))), "01");
    ASSERT_TRUE(mRig.daemon().waitForOutput(kNoUserBus, kDeadline, 2));
    EXPECT_EQ(askText(), kText);
    mRig.device().startUserBus();
    faultIsOver();
    ASSERT_TRUE(serviceServes());
    recovered();
    expectTwoLinesForEachAttempt();
    EXPECT_EQ(mRig.device().desktop().property("IpAddrQV").raw, "10.0.0.5");
    EXPECT_EQ(mRig.ask(writeReg(wire::eRegWrQVStatus, {3})), "01");
    EXPECT_TRUE(mRig.timeline().waitFor(sim::match::property("StatusQV", "3")));
}

TEST_F(BusFault, userBusLostAndBackAtOnce)
{
    describe({"user bus restarted", "the service is there again", 5s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    mRig.device().stopUserBus();
    mRig.device().startUserBus();
    faultIsOver();
    ASSERT_TRUE(serviceServes());
    recovered();
    EXPECT_EQ(askText(), kText);
}

TEST_F(BusFault, userBusLostWhileTheLogosRun)
{
    describe({"user bus lost while the logos run", "one line; the visualisation starts, the link is served", 5s});
    mRig.device().logo().setDuration({});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    ASSERT_TRUE(mRig.tellStory());
    ASSERT_TRUE(mRig.timeline().waitFor(call("Start")));
    faultIsOver();
    mRig.device().stopUserBus();
    ASSERT_TRUE(mRig.timeline().waitFor(call("LoadConfig"), 0, left()));
    recovered();
    // the bus may be gone before the answer to Start has come
    EXPECT_EQ(countOf(mRig.daemon().err(), "Failed to process bus: ") +
                  countOf(mRig.daemon().err(), "Failed to start logohandler: "),
              1U);
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdCfgApplied)), "00 01");
    EXPECT_EQ(askText(), kText);
}

TEST_F(BusFault, userBusLostBeforeADelayedExit)
{
    describe({"user bus lost before a delayed exit", "one line; the next exit comes when the bus is back", 10s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    ASSERT_TRUE(mRig.device().desktop().showQmx().ok);
    mRig.device().stopUserBus();
    ASSERT_TRUE(mRig.daemon().waitForOutput("Vorlan: Failed to open dbus\n"));
    mRig.device().startUserBus();
    faultIsOver();
    ASSERT_TRUE(serviceServes());
    ASSERT_TRUE(mRig.device().desktop().showQmx().ok);
    ASSERT_TRUE(mRig.timeline().waitFor(call("Exit"), 0, left()));
    recovered();
    EXPECT_EQ(errOfMain(), "Vorlan: Failed to open dbus\n");
}

TEST_F(BusFault, userBusStalled)
{
    describe({"user bus stalled", "the link is served; signals come when it goes on", 2s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    kill(mRig.device().userBus().pid(), SIGSTOP);
    EXPECT_EQ(mRig.ask(writeReg(wire::eRegWrQVIpAddr, text("10.0.0.5"))), "01");
    EXPECT_EQ(mRig.ask(writeReg(wire::eRegWrQVStatus, {3})), "01");
    EXPECT_EQ(askText(), kText);
    kill(mRig.device().userBus().pid(), SIGCONT);
    faultIsOver();
    ASSERT_TRUE(mRig.timeline().waitFor(sim::match::property("StatusQV", "3"), 0, left()));
    recovered();
    EXPECT_TRUE(mRig.timeline().find(sim::match::property("IpAddrQV", "\"10.0.0.5\"")));
}

TEST_F(BusFault, stopWhileTheUserBusIsStalled)
{
    describe({"stop while the user bus is stalled", "ends with status 0", 5s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    kill(mRig.device().userBus().pid(), SIGSTOP);
    EXPECT_EQ(mRig.ask(writeReg(wire::eRegWrQVStatus, {3})), "01");
    faultIsOver(); // to the stop it is no obstacle
    EXPECT_EQ(mRig.stop(left()), exited(0));
    recovered();
    kill(mRig.device().userBus().pid(), SIGCONT);
}

TEST_F(BusFault, nameTaken)
{
    describe({"name taken by another", "two lines for each attempt; the link is served", 5s});
    sim::BusPtr other = sim::openBus(mRig.device().userBus().address());
    ASSERT_GE(sd_bus_request_name(other.get(), "com.kelvora.vorlan", 0), 0);
    ASSERT_NO_FATAL_FAILURE(serve());
    const std::string line = "SDBusManager: Failed to register name dbus name: File exists\n";
    ASSERT_TRUE(mRig.daemon().waitForOutput(kRetrying, kDeadline, 2));
    EXPECT_THAT(mRig.daemon().err(), ::testing::StartsWith(repeated(line + kRetrying, 2)));
    EXPECT_EQ(askText(), kText);
    other.reset();
    faultIsOver();
    ASSERT_TRUE(serviceServes());
    recovered();
}

} // namespace
