#include "tests/faults/FaultTest.h"

namespace {

using namespace rig;
using namespace std::chrono_literals;
using sim::Service;
using sim::tBehaviour;
using sim::match::call;

/// A service's fault, the same for each service: how it begins and how it ends.
struct tServiceFault
{
    const char* name;
    const char* words;
    void (*begin)(Service& service);
    void (*end)(Service& service);
};

void clear(Service& service)
{
    service.clearBehaviour();
}

template <tBehaviour (*kBehaviour)()>
void behave(Service& service)
{
    service.setBehaviour("*", kBehaviour());
}

tBehaviour slow()
{
    return tBehaviour::delayed(500ms);
}

tBehaviour erring()
{
    return tBehaviour::error();
}

tBehaviour crashing()
{
    return tBehaviour::crash(100ms).times(1);
}

constexpr tServiceFault kAbsent{"Absent", "absent", [](Service& service) { service.goAway(); },
                                [](Service& service) { service.comeBack(); }};
constexpr tServiceFault kLate{"Late", "late", [](Service& service) { service.goAway(); },
                              [](Service& service) { service.comeBack(); }};
constexpr tServiceFault kSlow{"Slow", "slow (0.5 s a call)", behave<slow>, clear};
constexpr tServiceFault kSilent{"Silent", "silent", behave<tBehaviour::silent>, clear};
constexpr tServiceFault kErring{"Erring", "erring", behave<erring>, clear};
constexpr tServiceFault kWrongType{"WrongType", "answering with a wrong type", behave<tBehaviour::wrongType>, clear};
constexpr tServiceFault kRestarting{"RestartInMidCall", "restarting in the middle of a call", behave<crashing>,
                                    [](Service&) {}};

/// The outcome for one service.
struct tRow
{
    tServiceFault fault;
    const char* shows;
    milliseconds bound;
    int count = 0; ///< of what the test looks at
};

void PrintTo(const tRow& row, std::ostream* out)
{
    *out << row.fault.name;
}

std::string nameOf(const ::testing::TestParamInfo<tRow>& info)
{
    return info.param.fault.name;
}

class ServiceFault : public FaultTest, public ::testing::WithParamInterface<tRow>
{
protected:
    void describeFor(const std::string& service)
    {
        describe({service + " " + GetParam().fault.words, GetParam().shows, GetParam().bound});
    }
    void begin(Service& service) { GetParam().fault.begin(service); }
    void end(Service& service) { GetParam().fault.end(service); }
    int count() const { return GetParam().count; }
    /// QV applies its configuration once more, and the daemon has done so.
    void applyAgain()
    {
        const std::size_t from = mRig.timeline().mark();
        EXPECT_EQ(mRig.ask(rig::call(wire::eMethodApplyConfig)), "02");
        EXPECT_TRUE(mRig.timeline().waitFor(call("LoadConfig"), from));
    }
    bool is(const tServiceFault& fault) const { return std::string(GetParam().fault.name) == fault.name; }
};

/// The system daemon, while QV reads a register that it answers. count: lines on standard error.
class SystemDaemonFault : public ServiceFault
{};

TEST_P(SystemDaemonFault, spoilsNothingButTheAnswersMeanwhile)
{
    describeFor("system daemon");
    Service& sysd = mRig.device().sysd();
    if (is(kLate)) {
        begin(sysd);
        mRig.start();
        ASSERT_TRUE(mRig.daemon().waitForOutput(kWaiting, kDeadline, 3));
    } else {
        ASSERT_NO_FATAL_FAILURE(serve());
        ASSERT_EQ(askText(), kText);
        begin(sysd);
        EXPECT_EQ(askText(), is(kSlow) ? kText : kNoText);
        EXPECT_EQ(askZero(), kZero);
    }
    faultIsOver();
    end(sysd);
    ASSERT_TRUE(mRig.inStep(left()));
    while (askText() != kText && left() > 0ms)
        mRig.daemon().waitExit(5ms);
    EXPECT_EQ(askText(), kText);
    recovered();
    const std::string line = "SDBusSysD: Failed to get param: 127\n";
    if (is(kRestarting)) {
        EXPECT_GE(countOf(errOfMain(), line), 2U);
    } else {
        EXPECT_EQ(errOfMain(), repeated(line, static_cast<std::size_t>(count())));
    }
}

const tRow kSystemDaemon[] = {
    {kAbsent, "reply with an empty value, two lines a read", 2s, 2},
    {kLate, "waiting lines; then requests are served", 5s},
    {kSlow, "right replies, later", 2s},
    {kSilent, "reply with an empty value after the bus library's time-out (25 s; 2 s in this test), two lines", 2s, 2},
    {kErring, "reply with an empty value, two lines a read", 2s, 2},
    {kWrongType, "reply with an empty value, one line a read", 2s, 1},
    {kRestarting, "reply with an empty value and lines, until it is back (100 ms)", 3s},
};

INSTANTIATE_TEST_SUITE_P(Faults, SystemDaemonFault, ::testing::ValuesIn(kSystemDaemon), nameOf);

/// The logo handler, when the start-up gate opens. count: how often Start is received.
class LogoHandlerFault : public ServiceFault
{
protected:
    static constexpr char kNotStarted[] = "SDBusLogoHandler: Failed to start logohandler: ";
};

TEST_P(LogoHandlerFault, doesNotKeepTheVisualisationFromStarting)
{
    describeFor("logo handler");
    sim::LogoHandler& logo = mRig.device().logo();
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    if (is(kWrongType))
        logo.setWrongType(true);
    else
        begin(logo);
    faultIsOver(); // to the visualisation it is no obstacle
    ASSERT_TRUE(mRig.tellStory());
    if (is(kLate)) {
        ASSERT_TRUE(mRig.daemon().waitForOutput(kNotStarted));
        end(logo);
    }
    ASSERT_TRUE(mRig.timeline().waitFor(call("LoadConfig"), 0, left()));
    recovered();
    if (is(kLate))
        applyAgain();
    else
        end(logo);
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdCfgApplied)), "00 01");
    EXPECT_EQ(mRig.timeline().missingInOrder({call("SetParamInt", "0, 2"), call("LoadConfig")}), "");
    EXPECT_EQ(mRig.timeline().count(call("Start")), static_cast<std::size_t>(count()));
    const bool started = is(kSlow) || is(kWrongType);
    EXPECT_EQ(countOf(errOfMain(), kNotStarted), started ? 0U : 1U);
    EXPECT_TRUE(mRig.timeline().waitFor(sim::match::signal("LogosFinished").to("vorlan")));
}

const tRow kLogoHandler[] = {
    {kAbsent, "one line; visualisation without logos", 5s, 0},
    {kLate, "there right after the failure: one line; visualisation without logos, it is not asked again", 5s, 0},
    {kSlow, "logos, then the visualisation", 5s, 1},
    {kSilent, "one line after the bus library's time-out (25 s; 2 s in this test); visualisation", 8s, 1},
    {kErring, "one line; visualisation without logos", 5s, 1},
    {kWrongType, "visualisation; what Finished carries does not matter", 5s, 1},
    {kRestarting, "one line; visualisation without logos", 5s, 1},
};

INSTANTIATE_TEST_SUITE_P(Faults, LogoHandlerFault, ::testing::ValuesIn(kLogoHandler), nameOf);

/// The idle application, which ShowQMX tells to exit two seconds later. count: exits received while the fault lasts.
class IdleAppFault : public ServiceFault
{};

TEST_P(IdleAppFault, losesNothingButTheExitMeanwhile)
{
    describeFor("idle application");
    sim::IdleApp& idle = mRig.device().idle();
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    begin(idle);
    ASSERT_TRUE(mRig.device().desktop().showQmx().ok);
    EXPECT_EQ(askText(), kText);
    if (is(kLate))
        end(idle);
    EXPECT_TRUE(mRig.timeline().waitForCount(call("Exit"), static_cast<std::size_t>(count())));
    if (is(kAbsent)) {
        EXPECT_EQ(mRig.daemon().waitExit(4s), std::nullopt); // nobody sees the exit that is lost
    }
    faultIsOver();
    if (!is(kLate))
        end(idle);
    const std::size_t from = mRig.timeline().mark();
    ASSERT_TRUE(mRig.device().desktop().showQmx().ok);
    ASSERT_TRUE(mRig.timeline().waitFor(call("Exit"), from, left()));
    recovered();
    EXPECT_EQ(askText(), kText);
    EXPECT_EQ(errOfMain(), "");
    EXPECT_EQ(mRig.timeline().count(call("Exit")), static_cast<std::size_t>(count()) + 1);
}

const tRow kIdleApp[] = {
    {kAbsent, "the exit is lost without a line; the next one comes", 8s, 0},
    {kLate, "the exit comes when it is there by then", 8s, 1},
    {kSlow, "both exits come", 8s, 1},
    {kSilent, "nothing; the next exit comes", 12s, 1},
    {kErring, "nothing; the next exit comes", 8s, 1},
    {kWrongType, "nothing; the answer is not read", 8s, 1},
    {kRestarting, "nothing; the next exit comes", 8s, 1},
};

INSTANTIATE_TEST_SUITE_P(Faults, IdleAppFault, ::testing::ValuesIn(kIdleApp), nameOf);

/// The service manager, which is to start the automatic update when the gate opens, on the controller's own thread.
/// count: how often StartUnit is received.
class ServiceManagerFault : public ServiceFault
{};

TEST_P(ServiceManagerFault, delaysTheLinkAtMost)
{
    describeFor("service manager");
    sim::SystemdManager& systemd = mRig.device().systemd();
    mRig.device().sysd().setCfg("UpdateTrigger", 1);
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    begin(systemd);
    faultIsOver(); // to the link it is no obstacle
    ASSERT_TRUE(mRig.tellStory());
    if (is(kLate))
        end(systemd);
    EXPECT_EQ(askText(), kText);
    recovered();
    if (is(kSlow)) {
        EXPECT_TRUE(mRig.timeline().find(call("StartUnit"))->answer);
    }
    EXPECT_TRUE(mRig.timeline().waitFor(call("LoadConfig")));
    if (is(kLate))
        applyAgain();
    else
        end(systemd);
    EXPECT_EQ(countOf(mRig.daemon().out(), "Vorlan::startAutoUpdate\n"), 1U);
    EXPECT_EQ(mRig.timeline().count(call("StartUnit")), static_cast<std::size_t>(count()));
    EXPECT_EQ(errOfMain(), "");
}

const tRow kServiceManager[] = {
    {kAbsent, "no update, no line", 5s, 0},
    {kLate, "there right after the failure: no update, no line; it is not asked again", 5s, 0},
    {kSlow, "QV's reply waits for it", 5s, 1},
    {kSilent, "QV's reply waits for the bus library's time-out (25 s; 2 s in this test)", 8s, 1},
    {kErring, "no update, no line", 5s, 1},
    {kWrongType, "nothing; the answer is not read", 5s, 1},
    {kRestarting, "no update, no line", 5s, 1},
};

INSTANTIATE_TEST_SUITE_P(Faults, ServiceManagerFault, ::testing::ValuesIn(kServiceManager), nameOf);

using FaultOfAService = FaultTest;

TEST_F(FaultOfAService, systemDaemonRestartsWhileTheDaemonStarts)
{
    describe({"system daemon restarting while the daemon starts",
              "lines for what it missed; without a device it ends with status 0, and the next start serves", 10s});
    mRig.device().sysd().setBehaviour("GetParamInt", tBehaviour::crash(300ms).times(1));
    faultIsOver();
    sim::Daemon::tOptions options;
    options.environment = kShortCalls;
    mRig.start(options);
    ASSERT_EQ(mRig.daemon().waitExit(), sim::exited(0));
    EXPECT_THAT(errOfMain(), ::testing::StartsWith(repeated("SDBusSysD: Failed to get param: 24\n", 2)));
    mRig.start(options);
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
}

TEST_F(FaultOfAService, systemDaemonDoesNotAnswerWhetherItIsReady)
{
    describe({"system daemon silent about being ready", "waiting lines", 8s});
    mRig.device().sysd().setBehaviour("Ready", tBehaviour::silent());
    sim::Daemon::tOptions options;
    options.environment = kShortCalls;
    mRig.start(options);
    ASSERT_TRUE(mRig.daemon().waitForOutput(kWaiting));
    faultIsOver();
    mRig.device().sysd().clearBehaviour();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
}

TEST_F(FaultOfAService, logoHandlerRestartsWhileTheLogosRun)
{
    describe(
        {"logo handler restarting while the logos run", "the visualisation starts, one line; the link is served", 5s});
    sim::LogoHandler& logo = mRig.device().logo();
    logo.setDuration({});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    ASSERT_TRUE(mRig.tellStory());
    ASSERT_TRUE(mRig.timeline().waitFor(call("Start")));
    faultIsOver();
    logo.crash();
    ASSERT_TRUE(mRig.timeline().waitFor(call("LoadConfig"), 0, left()));
    recovered();
    EXPECT_EQ(errOfMain(), "Failed to process bus: Owner died\n");
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdCfgApplied)), "00 01");
}

TEST_F(FaultOfAService, systemDaemonAnswersTooLate)
{
    describe(
        {"system daemon's answer after the time-out", "reply with an empty value; the late answer is dropped", 2s});
    ASSERT_NO_FATAL_FAILURE(serve());
    mRig.device().sysd().setBehaviour("GetParamString", tBehaviour::held().times(1));
    EXPECT_EQ(askText(), kNoText);
    faultIsOver();
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdIpAddr)), "00 31 39 32 2e 31 36 38 2e 31 30 2e 32 30 00");
    recovered();
    mRig.device().sysd().release();
    ASSERT_TRUE(mRig.timeline().waitFor(
        [](const sim::tEvent& event) { return event.member == "GetParamString" && event.answer; }));
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdIpAddr)), "00 31 39 32 2e 31 36 38 2e 31 30 2e 32 30 00");
    EXPECT_EQ(askText(), kText);
}

} // namespace
