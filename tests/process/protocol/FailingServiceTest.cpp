#include "tests/process/protocol/VisuTest.h"

namespace {

using sim::match::call;
using sim::match::property;
using sim::match::signal;

constexpr char kUrl[] = "http://10.0.0.5:8080/index.html";
constexpr char kVncUrl[] = "10.0.0.5:5900";

std::string twice(const std::string& line)
{
    return line + line;
}

enum PlanE
{
    eWeb,
    eVnc,
    eNone ///< nothing to show, whatever was planned
};

/// One step that fails, and what the others do then.
struct tFailure
{
    const char* name;
    PlanE plan;
    void (*fail)(sim::SysDaemon& sysd);
    const char* err;
    PlanE outcome;
};

void PrintTo(const tFailure& row, std::ostream* out)
{
    *out << row.name;
}

constexpr char kGet24[] = "SDBusSysD: Failed to get param: 24\nSDBusSysD: Failed to get param: 24\n";
constexpr char kGet92[] = "SDBusSysD: Failed to get param: 92\nSDBusSysD: Failed to get param: 92\n";
constexpr char kVisuUrl[] = "SDBusSysD: Failed to get cfg: VisuURL\nSDBusSysD: Failed to get cfg: VisuURL\n";
constexpr char kVisuMode[] = "SDBusSysD: Failed to get cfg: VisuMode\nSDBusSysD: Failed to get cfg: VisuMode\n";
constexpr char kNoParam[] = "SysDDBusCtrl: Failed to call methodNoParam\n";

const tFailure kApplyFailures[] = {
    {"Orientation", eWeb, [](sim::SysDaemon& s) { s.removeParam(24); }, kGet24, eWeb},
    {"SaveConfig", eWeb, [](sim::SysDaemon& s) { s.setBehaviour("SaveConfig", sim::tBehaviour::error()); }, kNoParam,
     eWeb},
    {"Url", eWeb, [](sim::SysDaemon& s) { s.removeCfg("VisuURL"); }, kVisuUrl, eNone},
    {"UrlOfTheWrongType", eWeb, [](sim::SysDaemon& s) { s.setCfg("VisuURL", 1); }, kVisuUrl, eNone},
    {"Mode", eVnc, [](sim::SysDaemon& s) { s.removeCfg("VisuMode"); }, kVisuMode, eWeb},
    {"WebStartMode", eWeb, [](sim::SysDaemon& s) { s.removeParam(0); }, "SDBusSysD: Failed to set param: 0\n", eWeb},
    {"WebAddress", eWeb, [](sim::SysDaemon& s) { s.removeParam(90); }, "SDBusSysD: Failed to set param: 90\n", eWeb},
    {"VncStartMode", eVnc, [](sim::SysDaemon& s) { s.removeParam(0); }, "SDBusSysD: Failed to set param: 0\n", eVnc},
    {"VncAddress", eVnc, [](sim::SysDaemon& s) { s.removeParam(80); }, "SDBusSysD: Failed to set param: 80\n", eVnc},
    {"VncFlag", eVnc, [](sim::SysDaemon& s) { s.removeParam(86); }, "SDBusSysD: Failed to set param: 86\n", eVnc},
    {"LoadConfig", eWeb, [](sim::SysDaemon& s) { s.setBehaviour("LoadConfig", sim::tBehaviour::error()); }, kNoParam,
     eWeb},
    {"LoadConfigWithoutUrl", eNone, [](sim::SysDaemon& s) { s.setBehaviour("LoadConfig", sim::tBehaviour::error()); },
     kNoParam, eNone},
};

class FailingServiceTest : public VisuTest
{
protected:
    void plan(PlanE plan)
    {
        if (plan == eVnc)
            setVisu("localhost:5900", "VNC");
        else
            setVisu(plan == eWeb ? "http://localhost:8080/index.html" : "");
    }

    /// The daemon has both its connections, and serves.
    void expectServed()
    {
        EXPECT_EQ("00 31 2e 34 2e 32 00", ask(rig::readReg(wire::eRegRdParamText)));
        settle();
    }
};

class FailingStepTest : public FailingServiceTest, public testing::WithParamInterface<tFailure>
{};

} // namespace

TEST_P(FailingStepTest, LeavesItsLinesAndTheOtherStepsAreDone)
{
    const tFailure& row = GetParam();
    plan(row.plan);
    bootToLogos();
    row.fail(sysd());
    complains(row.err);
    finishLogos();
    const std::string url = row.plan == eVnc ? kVncUrl : kUrl;
    const Calls wanted = row.outcome == eNone ? noneCalls() : row.outcome == eVnc ? vncCalls(url) : webCalls(url);
    EXPECT_EQ(wanted, callsSoFar());
    if (row.outcome == eNone) {
        EXPECT_TRUE(comes(property("StatusText", R"("Please check your terminal configuration.")")));
    }
    EXPECT_EQ("00 01", ask(rig::readReg(wire::eRegRdCfgApplied)));
    expectServed();
}

INSTANTIATE_TEST_SUITE_P(Apply, FailingStepTest, testing::ValuesIn(kApplyFailures),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(FailingServiceTest, AFlagThatCannotBeReadIsFalse)
{
    plan(eVnc);
    bootToLogos();
    sysd().removeParam(92);
    complains(kGet92);
    finishLogos();
    EXPECT_EQ(vncCalls(kVncUrl, false), callsSoFar());
    expectServed();
}

TEST_F(FailingServiceTest, AnOrientationThatCannotBeReadIsZero)
{
    sysd().setParam(24, 90);
    bootToLogos();
    sysd().removeParam(24);
    complains(kGet24);
    finishLogos();
    EXPECT_TRUE(comes(signal("OrientationChanged")));
    expectServed();
}

TEST_F(FailingServiceTest, ANetworkThatCannotBeSetUpStopsNothing)
{
    sysd().setBehaviour("ConfigureNetwork", sim::tBehaviour::error());
    complains(kNoParam);
    bootToVisu();
    EXPECT_EQ(webCalls(kUrl), callsSoFar());
    expectServed();
}

TEST_F(FailingServiceTest, PropertiesThatCannotBeReadAreShownAsFalse)
{
    sysd().removeParam(210);
    sysd().removeParam(92);
    complains(kGet92 + twice("SDBusSysD: Failed to get param: 210\n"));
    linesInAnyOrder();
    boot();
    EXPECT_EQ("02", ask(req::setTime()));
    EXPECT_EQ("01", ask(req::running()));
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    openGate();
    EXPECT_TRUE(comes(property("ShowQVStatus", "false")));
    EXPECT_TRUE(comes(property("ShowLogos", "false")));
    finishLogos();
    EXPECT_EQ(webCalls(kUrl), callsSoFar());
    expectServed();
}

TEST_F(FailingServiceTest, AnUpdateTriggerThatCannotBeReadStartsNothing)
{
    boot();
    sysd().setCfg("UpdateTrigger", "1"); // a text
    complains(twice("SDBusSysD: Failed to get cfg: UpdateTrigger\n"));
    EXPECT_EQ("02", ask(req::setTime()));
    EXPECT_EQ("01", ask(req::running()));
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    openGate();
    EXPECT_FALSE(has(calls(), R"(systemd.StartUnit("autoupdated.service", "replace"))"));
    finishLogos();
    expectServed();
}

TEST_F(FailingServiceTest, AnUpdateUnitThatCannotBeStartedStopsNothing)
{
    sysd().setCfg("UpdateTrigger", 1);
    mRig.device().systemd().setBehaviour("StartUnit", sim::tBehaviour::error());
    bootToVisu();
    prints("Vorlan::startAutoUpdate\n");
    linesInAnyOrder();
    EXPECT_EQ(webCalls(kUrl), callsSoFar());
    expectServed();
}

TEST_F(FailingServiceTest, AServiceManagerThatIsAbsentStopsNothing)
{
    sysd().setCfg("UpdateTrigger", 1);
    mRig.device().systemd().goAway();
    bootToVisu();
    prints("Vorlan::startAutoUpdate\n");
    linesInAnyOrder();
    EXPECT_EQ(webCalls(kUrl), callsSoFar());
    expectServed();
}

TEST_F(FailingServiceTest, AnIdleApplicationThatIsAbsentStopsNothing)
{
    idle().goAway();
    bootToVisu();
    EXPECT_EQ(webCalls(kUrl), callsSoFar());
    expectServed();
}

TEST_F(FailingServiceTest, ASystemDaemonThatIsGoneFailsEachStepAndIsUsedAgainWhenItIsBack)
{
    bootToLogos();
    sysd().goAway();
    beginSpan();
    logo().finish();
    prints("Vorlan::startLogoHandler: finished\n");
    EXPECT_TRUE(comes(property("StatusText"))); // no URL, so nothing to show
    EXPECT_EQ("00 01", ask(rig::readReg(wire::eRegRdCfgApplied)));
    complains(std::string(kGet24) + kNoParam + kVisuUrl + "SDBusSysD: Failed to set param: 0\n" + kNoParam);
    sysd().comeBack();
    expectServed();
    EXPECT_EQ(webCalls(kUrl), applyAgain());
}

TEST_F(FailingServiceTest, ASilentSystemDaemonOnlyTakesItsTime)
{
    sim::Daemon::tOptions options;
    options.environment = {{"SYSTEMD_BUS_TIMEOUT", "3s"}};
    bootToLogos(options);
    sysd().setBehaviour("GetCfgString", sim::tBehaviour::silent().times(1));
    complains(kVisuUrl);
    finishLogos();
    EXPECT_EQ(noneCalls(), calls());
    expectServed();
    EXPECT_EQ(webCalls(kUrl), applyAgain());
}

TEST_F(FailingServiceTest, AMissingSystemBusFailsEachStepAndTheLinkServes)
{
    bootToLogos();
    mRig.device().stopSystemBus();
    beginSpan();
    logo().finish();
    EXPECT_TRUE(comes(property("StatusText")));
    EXPECT_EQ("00 01", ask(rig::readReg(wire::eRegRdCfgApplied)));
    EXPECT_EQ("00 00", ask(rig::readReg(wire::eRegRdParamText)));
    EXPECT_EQ("02", ask(req::applyConfig()));
    anyLines();
}

namespace {

/// Where in the applying the system daemon dies: over this call.
class DyingSystemDaemonTest : public FailingServiceTest, public testing::WithParamInterface<std::size_t>
{};

} // namespace

TEST_P(DyingSystemDaemonTest, TheStartGoesToItsEndAndEverythingWorksAgainAfterwards)
{
    const Calls steps = webCalls(kUrl);
    const auto memberOf = [&](std::size_t step) { return steps[step].substr(0, steps[step].find('(')); };
    const std::size_t step = GetParam();
    const sim::tBehaviour death = sim::tBehaviour::crash(rig::milliseconds{0}).times(1);
    bootToLogos();
    if (step == 0)
        sysd().setBehaviour(memberOf(0), death);
    else
        when(steps[step - 1], [this, member = memberOf(step), death] { sysd().setBehaviour(member, death); });
    beginSpan();
    logo().finish();
    anyLines(); // how much fails depends on how soon it is back
    EXPECT_TRUE(comes(signal("LogosFinished")));
    const auto died = [](const sim::tEvent& event) { return event.service == "sysd" && !event.answer; };
    ASSERT_TRUE(comes(died));
    EXPECT_EQ(steps[step], timeline().find(died)->call().substr(sizeof "sysd." - 1));
    timeline().listen({});
    const auto end = rig::Clock::now() + rig::kDeadline;
    Calls again;
    do // the first one waits for the one under way, and some may meet nobody
        again = applyAgain();
    while (again != steps && rig::Clock::now() < end);
    EXPECT_EQ(steps, again);
    EXPECT_EQ("00 01", ask(rig::readReg(wire::eRegRdCfgApplied)));
    expectServed();
}

INSTANTIATE_TEST_SUITE_P(Steps, DyingSystemDaemonTest, testing::Range(std::size_t{0}, std::size_t{7}));
