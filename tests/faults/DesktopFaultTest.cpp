#include "tests/faults/FaultTest.h"
#include "tests/faults/Strangers.h"

#include <csignal>
#include <cstdlib>
#include <future>

namespace {

using namespace rig;
using namespace std::chrono_literals;
using sim::tBehaviour;
using sim::match::call;
using sim::match::property;

/// How often QV reports its status beside the pollers. VORLAN_STATUS_WRITES asks for more.
int statusWrites()
{
    const char* wanted = std::getenv("VORLAN_STATUS_WRITES");
    return wanted == nullptr ? 300 : std::atoi(wanted);
}

/// What one of them may take: in the suite they share the machine with other tests.
milliseconds boundOf(milliseconds alone)
{
    return std::getenv("VORLAN_STATUS_WRITES") == nullptr ? milliseconds{5'000} : alone;
}

/// The desktop on the user bus, while QV reports.
class DesktopFault : public OnEachBus
{
protected:
    std::string reportStatus(int status)
    {
        return mRig.ask(writeReg(wire::eRegWrQVStatus, {static_cast<std::uint8_t>(status)}));
    }

    /// Each report is measured; the first that is too late is the last.
    void reportBesidePollers()
    {
        const Pollers pollers(mRig.device().userBus(), 15);
        ASSERT_TRUE(mRig.timeline().waitForCount(call("GetParamInt"), 3, mFrom));
        for (int i = 0; i < statusWrites() && !HasFailure(); ++i) {
            faultIsOver(); // to QV it is no obstacle
            EXPECT_EQ(reportStatus(i % 3), "01");
            recovered();
        }
        const auto end = Clock::now() + kDeadline;
        while (pollers.answers() == 0 && Clock::now() < end)
            mRig.daemon().waitExit(5ms);
        EXPECT_GT(pollers.answers(), 0U);
    }

    /// On a fast line, for many reports.
    void SetUp() override
    {
        sim::Daemon::tOptions options;
        options.environment = kShortCalls;
        options.arguments = {"-s", mRig.device().line().path(), "-b", "4000000"};
        ASSERT_TRUE(mRig.serve(options));
        ASSERT_TRUE(mRig.device().desktop().waitForService());
        mFrom = mRig.timeline().mark();
    }

    std::size_t mFrom = 0;
};

INSTANTIATE_TEST_SUITE_P(Buses, DesktopFault, kEachBus, busName);

TEST_P(DesktopFault, pollersDoNotHoldUpTheStatus)
{
    describe({named("fifteen programs poll all properties"), "each status report is answered", boundOf(100ms)});
    reportBesidePollers();
}

TEST_P(DesktopFault, pollersOfASlowSystemDaemonDoNotHoldUpTheStatus)
{
    describe({named("fifteen programs poll all properties, the system daemon slow (0.3 s a call)"),
              "each status report is answered", boundOf(100ms)});
    mRig.device().sysd().setBehaviour("*", tBehaviour::delayed(300ms));
    reportBesidePollers();
}

TEST_P(DesktopFault, readerOfAPropertyDoesNotHoldUpTheStatus)
{
    describe({named("a property is read, the system daemon's answer held back"),
              "status reports are answered and announced meanwhile", 5s});
    mRig.device().sysd().setBehaviour("GetParamInt", tBehaviour::held());
    auto offset = std::async(std::launch::async, [&] { return mRig.device().desktop().property("GifOffsetX").value; });
    ASSERT_TRUE(mRig.timeline().waitFor(call("GetParamInt"), mFrom));
    faultIsOver(); // to QV it is no obstacle
    EXPECT_EQ(reportStatus(3), "01");
    EXPECT_TRUE(mRig.timeline().waitFor(property("StatusQV", "3"), mFrom));
    recovered();
    mRig.device().sysd().release();
    EXPECT_EQ(offset.get(), "10"); // 0 if the daemon had given up waiting before the report was answered
}

TEST_P(DesktopFault, showQmxDoesNotHoldUpTheStatus)
{
    describe({named("ShowQMX, the system daemon's answer held back"),
              "status reports are answered and announced meanwhile", 5s});
    mRig.device().sysd().setBehaviour("SetCfgInt", tBehaviour::held());
    auto shown = std::async(std::launch::async, [&] { return mRig.device().desktop().showQmx().ok; });
    ASSERT_TRUE(mRig.timeline().waitFor(call("SetCfgInt"), mFrom));
    faultIsOver(); // to QV it is no obstacle
    EXPECT_EQ(reportStatus(3), "01");
    EXPECT_TRUE(mRig.timeline().waitFor(property("StatusQV", "3"), mFrom));
    recovered();
    EXPECT_NE(shown.wait_for(0s), std::future_status::ready);
    mRig.device().sysd().release();
    EXPECT_TRUE(shown.get());
    EXPECT_EQ(errOfMain(), ""); // the call was not given up
}

TEST_P(DesktopFault, signalsForABusThatStandsStillDoNotPileUp)
{
    describe({named("user bus standing still, 40 000 reports"),
              "reports are answered; memory grows by 8 MB at most; the service is back with the bus", 10s});
    constexpr int kReports = kSanitized ? 2'000 : 40'000; // the kernel's buffers take the first 21 000
    rememberMemory();
    kill(mRig.device().userBus().pid(), SIGSTOP);
    for (int i = 0; i < kReports; ++i)
        ASSERT_EQ(reportStatus(i % 3), "01");
    ASSERT_EQ(mRig.ask(writeReg(wire::eRegWrQVIpAddr, text("10.0.0.5"))), "01");
    expectMemoryWithin(8);
    kill(mRig.device().userBus().pid(), SIGCONT);
    faultIsOver();
    while (!mRig.device().desktop().waitForService(left()) && left() > 0ms) { // the bus may know the old connection yet
    }
    ASSERT_GT(left(), 0ms);
    recovered();
    EXPECT_EQ(mRig.device().desktop().property("IpAddrQV").raw, "10.0.0.5");
    EXPECT_EQ(reportStatus(7), "01");
    EXPECT_TRUE(mRig.timeline().waitFor(property("StatusQV", "7"), mFrom));
}

} // namespace
