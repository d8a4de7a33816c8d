#include "tests/process/protocol/VisuTest.h"

namespace {

using sim::match::call;
using sim::match::property;
using sim::match::signal;

class ApplyConfigTest : public VisuTest
{
protected:
    sim::Clock::duration timeOf(const sim::Match& match, std::size_t nth = 0)
    {
        const auto found = timeline().select(match);
        return nth < found.size() ? found[nth].time : sim::Clock::duration{};
    }
};

struct tUrl
{
    const char* url;
    const char* wanted;
    bool rewritten;
};

/// With QV at 10.0.0.5.
const tUrl kUrls[] = {
    {"http://localhost:8080/index.html", "http://10.0.0.5:8080/index.html", true},
    {"localhost/x", "10.0.0.5/x", true},
    {"https://127.0.0.1/", "https://10.0.0.5/", true},
    {"https://localhost/", "https://10.0.0.5/", true},
    {"http://127.0.0.1", "http://10.0.0.5", true},
    {"127.0.0.1:5900", "10.0.0.5:5900", true},
    {"  http://localhost/ ", "http://10.0.0.5/ ", true},
    {" \t\n\v\f\rlocalhost", "10.0.0.5", true},
    {"http://localhost/?a=127.0.0.1", "http://10.0.0.5/?a=127.0.0.1", true},
    {"http://127.0.0.1/?a=localhost", "http://10.0.0.5/?a=localhost", true},
    {"ftp://localhost/", "ftp://localhost/", false},
    {"http://mylocalhost/", "http://mylocalhost/", false},
    {"HTTP://localhost/", "HTTP://localhost/", false},
    {"http://LOCALHOST/", "http://LOCALHOST/", false},
    {"http://qv.example/?localhost", "http://qv.example/?localhost", false},
    {"x", "x", false},
};

} // namespace

TEST_F(ApplyConfigTest, WebGoesInThisOrder)
{
    bootToVisu();
    EXPECT_EQ((Calls{"GetParamInt(24)", "SaveConfig()", R"(GetCfgString("VisuURL"))", R"(GetCfgString("VisuMode"))",
                     "SetParamInt(0, 2)", R"(SetParamString(90, "http://10.0.0.5:8080/index.html"))", "LoadConfig()"}),
              callsSoFar());
    EXPECT_EQ(webCalls("http://10.0.0.5:8080/index.html"), applyAgain());
}

TEST_F(ApplyConfigTest, VncGoesInThisOrder)
{
    setVisu("localhost:5900", "VNC");
    bootToVisu();
    EXPECT_EQ((Calls{"GetParamInt(24)", "SaveConfig()", R"(GetCfgString("VisuURL"))", R"(GetCfgString("VisuMode"))",
                     "SetParamInt(0, 1)", R"(SetParamString(80, "10.0.0.5:5900"))", "GetParamBool(92)",
                     "SetParamBool(86, true)", "LoadConfig()"}),
              callsSoFar());
    sysd().setParam(92, false);
    EXPECT_EQ(vncCalls("10.0.0.5:5900", false), applyAgain());
}

TEST_F(ApplyConfigTest, WithoutAUrlNothingIsStartedAndTheUserIsTold)
{
    setVisu("");
    bootToVisu();
    EXPECT_EQ(
        (Calls{"GetParamInt(24)", "SaveConfig()", R"(GetCfgString("VisuURL"))", "SetParamInt(0, 3)", "LoadConfig()"}),
        calls());
    EXPECT_TRUE(comes(property("StatusText")));
    EXPECT_EQ((Calls{"LogosFinished()", "AnimationEnabled = false",
                     R"(StatusText = "Please check your terminal configuration.")"}),
              signals());
    EXPECT_EQ("00 01", ask(rig::readReg(wire::eRegRdCfgApplied))); // even so
}

TEST_F(ApplyConfigTest, AUrlOfWhiteSpaceIsNone)
{
    setVisu(" \t\r\n ");
    bootToVisu();
    EXPECT_EQ(noneCalls(), calls());
}

TEST_F(ApplyConfigTest, OnlyTheThreeCapitalLettersMeanVnc)
{
    setVisu("http://qv/", "VNC");
    bootToVisu();
    EXPECT_EQ(vncCalls("http://qv/"), callsSoFar());
    for (const char* mode : {"vnc", "Vnc", "VNC ", " VNC", "VNCX", "", "Web", "anything"}) {
        setVisu("http://qv/", mode);
        EXPECT_EQ(webCalls("http://qv/"), applyAgain()) << mode;
    }
}

TEST_F(ApplyConfigTest, AUrlThatPointsAtTheDeviceIsMadeToPointAtQV)
{
    bootToVisu();
    for (const tUrl& row : kUrls) {
        setVisu(row.url);
        EXPECT_EQ(webCalls(row.wanted), applyAgain()) << row.url;
        setVisu(row.url, "VNC");
        EXPECT_EQ(vncCalls(row.wanted), applyAgain()) << row.url;
    }
}

TEST_F(ApplyConfigTest, ANewAddressAppliesAgainOnlyWhenTheUrlWasRewritten)
{
    bootToVisu();
    int address = 6;
    for (const tUrl& row : kUrls) {
        setVisu(row.url);
        EXPECT_EQ("01", ask(req::address("10.0.0.5"))); // back to it
        applyAgain();
        const std::string fresh = "10.0.0." + std::to_string(address++);
        EXPECT_EQ("01", ask(req::address(fresh)));
        Calls wanted = {"SetParamString(214, \"" + fresh + "\")"};
        if (row.rewritten) {
            std::string url = row.wanted;
            url.replace(url.find("10.0.0.5"), sizeof "10.0.0.5" - 1, fresh);
            const Calls applied = webCalls(url);
            wanted.insert(wanted.end(), applied.begin(), applied.end());
        }
        EXPECT_EQ(wanted, callsSoFar()) << row.url;
    }
}

TEST_F(ApplyConfigTest, TheSecondSubstitutionRunsAlsoWhenTheFirstOneHit)
{
    bootToVisu();
    EXPECT_EQ("01", ask(req::address("127.0.0.15")));
    EXPECT_EQ("SetParamString(90, \"http://127.0.0.155:8080/index.html\")", callsSoFar().at(6));
    setVisu("http://127.0.0.1/");
    EXPECT_EQ(webCalls("http://127.0.0.15/"), applyAgain());
}

TEST_F(ApplyConfigTest, AUrlThatIsGoneLeavesTheOldRewritingInForce)
{
    bootToVisu();
    setVisu("");
    EXPECT_EQ(noneCalls(), applyAgain());
    EXPECT_EQ("01", ask(req::address("10.0.0.6")));
    Calls wanted = noneCalls();
    wanted.insert(wanted.begin(), R"(SetParamString(214, "10.0.0.6"))");
    EXPECT_EQ(wanted, callsSoFar());
    setVisu("http://qv/");
    EXPECT_EQ(webCalls("http://qv/"), applyAgain());
    EXPECT_EQ("01", ask(req::address("10.0.0.7")));
    EXPECT_EQ((Calls{R"(SetParamString(214, "10.0.0.7"))"}), callsSoFar());
}

TEST_F(ApplyConfigTest, ANewAddressIsHandedOverAndPublishedBeforeItIsApplied)
{
    bootToVisu();
    settle();
    sysd().setBehaviour("GetParamInt", sim::tBehaviour::held());
    tell(req::address("10.0.0.6"));
    ASSERT_TRUE(comes(call("GetParamInt", "24")));
    EXPECT_TRUE(comes(property("IpAddrQV", R"("10.0.0.6")")));
    EXPECT_EQ(R"(SetParamString(214, "10.0.0.6"))", calls().at(0));
    sysd().release();
    EXPECT_EQ("01", reply());
}

TEST_F(ApplyConfigTest, StatusAndTimeApplyNothingAgain)
{
    bootToVisu();
    EXPECT_EQ("01", ask(req::status(req::kNotRunning)));
    EXPECT_EQ("01", ask(req::running()));
    EXPECT_EQ(Calls{}, callsSoFar());
    EXPECT_EQ("02", ask(req::setTime()));
    EXPECT_EQ((Calls{"SetUnixTime(1700000000)"}), callsSoFar());
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    EXPECT_EQ(Calls{}, callsSoFar());
}

TEST_F(ApplyConfigTest, AnAddressThatComesWhileTheUrlIsReadIsTheOneThatIsApplied)
{
    bootToLogos();
    sysd().setBehaviour("GetCfgString", sim::tBehaviour::held());
    beginSpan();
    logo().finish();
    prints("Vorlan::startLogoHandler: finished\n");
    ASSERT_TRUE(comes(call("GetCfgString", R"("VisuURL")")));
    const sim::Desktop& desktop = mRig.device().desktop();
    ASSERT_TRUE(desktop.waitForService());
    tell(req::address("10.0.0.6"));
    const auto end = rig::Clock::now() + rig::kDeadline;
    while (desktop.property("IpAddrQV").raw == "10.0.0.5")
        ASSERT_LT(rig::Clock::now(), end);
    sysd().setBehaviour("GetCfgString", sim::tBehaviour::normal());
    sysd().release();
    EXPECT_EQ("01", reply());
    EXPECT_TRUE(comes(call("LoadConfig")));
    ask(rig::readReg(wire::eRegRdParamText));
    EXPECT_EQ(sim::SysDaemon::Value("http://10.0.0.6:8080/index.html"), sysd().param(90));
}

TEST_F(ApplyConfigTest, AnAddressThatComesWhileTheUrlIsHandedOverIsAppliedNext)
{
    bootToLogos();
    sysd().setBehaviour("SetParamString", sim::tBehaviour::held());
    beginSpan();
    logo().finish();
    prints("Vorlan::startLogoHandler: finished\n");
    ASSERT_TRUE(comes(call("SetParamString", R"(90, "http://10.0.0.5:8080/index.html")")));
    tell(req::address("10.0.0.6"));
    sysd().setBehaviour("SetParamString", sim::tBehaviour::normal());
    sysd().release();
    EXPECT_EQ("01", reply());
    EXPECT_EQ(sim::SysDaemon::Value("http://10.0.0.6:8080/index.html"), sysd().param(90));
}

TEST_F(ApplyConfigTest, EachApplyingRunsAsAWhole)
{
    bootToLogos();
    sysd().setBehaviour("SaveConfig", sim::tBehaviour::held());
    beginSpan();
    logo().finish();
    prints("Vorlan::startLogoHandler: finished\n");
    ASSERT_TRUE(comes(call("SaveConfig")));
    // QV asks for the same from the other thread.
    mRig.peer().sendFrame(mRig.peer().number(), req::applyConfig());
    prints("Vorlan: ApplyConfig\n");
    ASSERT_TRUE(mRig.daemon().waitForOutput("Vorlan: ApplyConfig\n", rig::kDeadline, 2));
    sysd().setBehaviour("SaveConfig", sim::tBehaviour::normal());
    sysd().release();
    EXPECT_EQ("02", reply());
    Calls twice = webCalls("http://10.0.0.5:8080/index.html");
    const Calls once = twice;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(twice, callsSoFar());
}

/// The logo thread is kept in the loading; QV's next write shows that nothing was published before it.
TEST_F(ApplyConfigTest, TheOrientationIsAnnouncedAfterTheLoading)
{
    bootToLogos();
    sysd().setParam(24, 90);
    sysd().setBehaviour("LoadConfig", sim::tBehaviour::held());
    finishLogos();
    settle();
    EXPECT_FALSE(came(signal("OrientationChanged")));
    sysd().release();
    EXPECT_TRUE(comes(signal("OrientationChanged")));
}

TEST_F(ApplyConfigTest, TheUserIsToldAfterTheLoading)
{
    setVisu("");
    bootToLogos();
    sysd().setParam(24, 90);
    sysd().setBehaviour("LoadConfig", sim::tBehaviour::held());
    finishLogos();
    EXPECT_EQ(Calls{"LogosFinished()"}, signals());
    sysd().release();
    EXPECT_TRUE(comes(property("StatusText")));
    const Calls wanted = {"LogosFinished()", "OrientationChanged()", "AnimationEnabled = false",
                          R"(StatusText = "Please check your terminal configuration.")"};
    Calls heard = signals();
    std::erase_if(heard, [](const std::string& signal) { return signal.starts_with("StatusQV"); });
    EXPECT_EQ(wanted, heard);
}

namespace {

struct tTurn
{
    int from; ///< at the start
    int to;   ///< when the settings are applied
    bool announced;
};

void PrintTo(const tTurn& row, std::ostream* out)
{
    *out << row.from << " to " << row.to;
}

class OrientationTest : public VisuTest, public testing::WithParamInterface<tTurn>
{};

const tTurn kTurns[] = {{0, 0, false},    {0, 180, false}, {180, 0, false}, {90, 270, false},
                        {270, 90, false}, {0, 90, true},   {90, 0, true},   {90, 180, true},
                        {180, 270, true}, {270, 0, true},  {0, 360, false}, {0, 1, true}};

} // namespace

TEST_P(OrientationTest, IsAnnouncedUnlessItIsHalfATurn)
{
    sysd().setParam(24, GetParam().from);
    bootToLogos();
    settle();
    sysd().setParam(24, GetParam().to);
    finishLogos();
    EXPECT_EQ(webCalls("http://10.0.0.5:8080/index.html"), applyAgain()); // by now the first applying is over
    settle();
    EXPECT_EQ(GetParam().announced ? 1U : 0U, timeline().count(signal("OrientationChanged")));
}

INSTANTIATE_TEST_SUITE_P(Turns, OrientationTest, testing::ValuesIn(kTurns), [](const auto& row) {
    return "From" + std::to_string(row.param.from) + "To" + std::to_string(row.param.to);
});

TEST_F(ApplyConfigTest, EachTurnIsComparedWithTheOneBefore)
{
    bootToVisu();
    std::size_t announced = 0;
    const std::pair<int, bool> kSteps[] = {{90, true}, {270, false}, {90, false}, {180, true}, {0, false}, {90, true}};
    for (const auto& [orientation, changes] : kSteps) {
        sysd().setParam(24, orientation);
        applyAgain();
        settle();
        announced += changes ? 1 : 0;
        EXPECT_EQ(announced, timeline().count(signal("OrientationChanged"))) << orientation;
    }
}

TEST_F(ApplyConfigTest, TheIdleApplicationExitsFourSecondsAfterEachStartAndNotWithoutOne)
{
    using namespace std::chrono_literals;
    setVisu("");
    bootToVisu(); // nothing is started, so nobody has to go
    setVisu("http://qv/");
    applyAgain();
    applyAgain();
    setVisu("http://qv/", "VNC");
    applyAgain();
    ASSERT_TRUE(timeline().waitForCount(call("Exit"), 3));
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_GE(timeOf(call("Exit"), i) - timeOf(call("LoadConfig"), i + 1), 4s);
    EXPECT_EQ("idle.Exit()", timeline().find(call("Exit"))->call());
    EXPECT_EQ("00 31 2e 34 2e 32 00", ask(rig::readReg(wire::eRegRdParamText)));
    EXPECT_EQ(3U, timeline().count(call("Exit")));
}
