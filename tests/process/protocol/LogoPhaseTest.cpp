#include "tests/process/protocol/VisuTest.h"

namespace {

using sim::match::call;
using sim::match::logWith;
using sim::match::property;
using sim::match::signal;

class LogoPhaseTest : public VisuTest
{};

} // namespace

TEST_F(LogoPhaseTest, ShowsTheLogosAnnouncesThemAndApplies)
{
    bootToLogos();
    finishLogos();
    settle();
    beginAll();
    EXPECT_EQ("", timeline().missingInOrder({call("ConfigureNetwork").to("sysd"), call("GetParamBool", "92"),
                                             call("Start").to("logo").on(sim::ChannelE::eUserBus),
                                             signal("Finished").to("logo"), call("GetParamInt", "24"),
                                             call("SaveConfig"), call("LoadConfig")}));
    EXPECT_EQ("", timeline().missingInOrder(
                      {property("ShowLogos", "true"), signal("Finished").to("logo"), signal("LogosFinished")}));
}

TEST_F(LogoPhaseTest, TheLogosAreAnnouncedAndLoggedBeforeTheyStart)
{
    sysd().setBehaviour("GetParamBool", sim::tBehaviour::held());
    boot();
    EXPECT_EQ("02", ask(req::setTime()));
    EXPECT_EQ("01", ask(req::running()));
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    tell(req::applyConfig());
    prints("Vorlan: ApplyConfig\n"
           "Vorlan::startLogoHandler\n");
    // Both threads ask for what they publish, in any order.
    ASSERT_TRUE(comes(call("GetParamBool")));
    if (!came(call("GetParamBool", "92"))) {
        sysd().release();
        ASSERT_TRUE(comes(call("GetParamBool", "92")));
    }
    EXPECT_FALSE(came(logWith("startLogoHandler")));
    EXPECT_FALSE(came(call("Start").to("logo")));
    sysd().setBehaviour("GetParamBool", sim::tBehaviour::normal());
    sysd().release();
    EXPECT_EQ("02", reply());
    ASSERT_TRUE(comes(call("Start").to("logo")));
    EXPECT_TRUE(mRig.daemon().waitForOutput("Vorlan::startLogoHandler\n"));
    EXPECT_TRUE(comes(property("ShowLogos", "true")));
}

TEST_F(LogoPhaseTest, NothingIsAppliedWhileTheLogosGoOn)
{
    bootToLogos();
    EXPECT_EQ(Calls{}, applyAgain());
    EXPECT_EQ("01", ask(req::address("10.0.0.6")));
    EXPECT_EQ((Calls{R"(SetParamString(214, "10.0.0.6"))"}), calls());
    EXPECT_EQ("00 00", ask(rig::readReg(wire::eRegRdCfgApplied)));
    EXPECT_FALSE(came(signal("LogosFinished")));
    finishLogos();
    EXPECT_EQ(webCalls("http://10.0.0.6:8080/index.html"), callsSoFar()); // the address of the moment
}

TEST_F(LogoPhaseTest, TheEndIsLoggedAndPublishedBeforeAnythingIsApplied)
{
    bootToLogos();
    sysd().setBehaviour("GetParamInt", sim::tBehaviour::held());
    beginSpan();
    logo().finish();
    prints("Vorlan::startLogoHandler: finished\n");
    ASSERT_TRUE(comes(call("GetParamInt", "24")));
    EXPECT_TRUE(comes(signal("LogosFinished")));
    EXPECT_TRUE(mRig.daemon().waitForOutput("Vorlan::startLogoHandler: finished\n"));
    EXPECT_EQ("00 00", ask(rig::readReg(wire::eRegRdCfgApplied))); // that flag comes next
    sysd().setBehaviour("SaveConfig", sim::tBehaviour::held());
    sysd().release();
    ASSERT_TRUE(comes(call("SaveConfig")));
    EXPECT_EQ("00 01", ask(rig::readReg(wire::eRegRdCfgApplied)));
    sysd().setBehaviour("SaveConfig", sim::tBehaviour::normal());
    sysd().release();
    EXPECT_TRUE(comes(call("LoadConfig")));
}

TEST_F(LogoPhaseTest, TheResultOfTheLogosMakesNoDifference)
{
    logo().setResult(false);
    bootToVisu();
    EXPECT_EQ(webCalls("http://10.0.0.5:8080/index.html"), callsSoFar());
    EXPECT_TRUE(comes(signal("LogosFinished")));
}

TEST_F(LogoPhaseTest, AResultThatCannotBeReadEndsTheLogosToo)
{
    logo().setWrongType(true);
    bootToVisu();
    EXPECT_EQ(webCalls("http://10.0.0.5:8080/index.html"), callsSoFar());
}

TEST_F(LogoPhaseTest, FinishedTwiceIsFinishedOnce)
{
    bootToLogos();
    finishLogos();
    logo().finish();
    settle();
    beginAll();
    EXPECT_EQ(1U, timeline().count(signal("LogosFinished")));
    EXPECT_EQ(1U, timeline().count(call("LoadConfig")));
}

TEST_F(LogoPhaseTest, FinishedBeforeTheStartEndsNothing)
{
    boot();
    logo().finish();
    EXPECT_EQ("02", ask(req::setTime()));
    EXPECT_EQ("01", ask(req::running()));
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    openGate();
    EXPECT_EQ(Calls{}, applyAgain());
    finishLogos();
}

TEST_F(LogoPhaseTest, WithoutALogoHandlerTheVisualisationStartsAllTheSame)
{
    logo().goAway();
    boot();
    EXPECT_EQ("02", ask(req::setTime()));
    EXPECT_EQ("01", ask(req::running()));
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    EXPECT_EQ("02", ask(req::applyConfig()));
    prints("Vorlan: ApplyConfig\n"
           "Vorlan::startLogoHandler\n"
           "Vorlan::startLogoHandler: finished\n");
    complains("SDBusLogoHandler: Failed to start logohandler: No route to host\n");
    EXPECT_TRUE(comes(call("LoadConfig")));
    EXPECT_TRUE(comes(signal("LogosFinished")));
    EXPECT_EQ("00 01", ask(rig::readReg(wire::eRegRdCfgApplied)));
}

TEST_F(LogoPhaseTest, ALogoHandlerThatRefusesIsLikeNone)
{
    logo().setBehaviour("Start", sim::tBehaviour::error());
    bootToLogos();
    prints("Vorlan::startLogoHandler: finished\n");
    complains("SDBusLogoHandler: Failed to start logohandler: Input/output error\n");
    EXPECT_TRUE(comes(call("LoadConfig")));
    EXPECT_TRUE(comes(signal("LogosFinished")));
    EXPECT_EQ("00 01", ask(rig::readReg(wire::eRegRdCfgApplied)));
}

TEST_F(LogoPhaseTest, ALogoHandlerThatDiesOverTheStartIsLikeNone)
{
    logo().setBehaviour("Start", sim::tBehaviour::crash());
    bootToLogos();
    prints("Vorlan::startLogoHandler: finished\n");
    EXPECT_TRUE(comes(call("LoadConfig")));
    EXPECT_TRUE(mRig.daemon().waitForOutput("Failed to start logohandler"));
    complains("SDBusLogoHandler: Failed to start logohandler: Connection timed out\n");
}

TEST_F(LogoPhaseTest, ALogoHandlerThatDoesNotAnswerIsLikeNone)
{
    sim::Daemon::tOptions options;
    options.environment = {{"SYSTEMD_BUS_TIMEOUT", "3s"}};
    logo().setBehaviour("Start", sim::tBehaviour::silent());
    bootToLogos(options);
    prints("Vorlan::startLogoHandler: finished\n");
    complains("SDBusLogoHandler: Failed to start logohandler: Connection timed out\n");
    EXPECT_TRUE(comes(call("LoadConfig")));
    EXPECT_TRUE(comes(signal("LogosFinished")));
}

TEST_F(LogoPhaseTest, ALogoHandlerThatLeavesEndsTheLogosAndTheVisualisationStarts)
{
    bootToLogos();
    beginSpan();
    logo().crash();
    prints("Vorlan::startLogoHandler: finished\n");
    complains("Failed to process bus: Owner died\n");
    EXPECT_TRUE(comes(call("LoadConfig")));
    EXPECT_TRUE(comes(signal("LogosFinished")));
    EXPECT_EQ(webCalls("http://10.0.0.5:8080/index.html"), callsSoFar());
}

TEST_F(LogoPhaseTest, TheLinkServesRequestsWhileTheLogosGoOn)
{
    bootToLogos();
    EXPECT_EQ("00 31 2e 34 2e 32 00", ask(rig::readReg(wire::eRegRdParamText)));
    EXPECT_EQ("02", ask(rig::call(wire::eMethodBeep)));
    finishLogos();
    EXPECT_EQ("00 31 2e 34 2e 32 00", ask(rig::readReg(wire::eRegRdParamText)));
}

TEST_F(LogoPhaseTest, WithoutAUserBusTheVisualisationIsAppliedAllTheSame)
{
    mRig.device().stopUserBus();
    sysd().setCfg("UpdateTrigger", 1);
    boot();
    EXPECT_EQ("02", ask(req::setTime()));
    EXPECT_EQ("01", ask(req::running()));
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    EXPECT_EQ("02", ask(req::applyConfig()));
    EXPECT_TRUE(comes(call("LoadConfig")));
    EXPECT_EQ("00 01", ask(rig::readReg(wire::eRegRdCfgApplied)));
    prints("Vorlan: ApplyConfig\n"
           "Vorlan::startLogoHandler\n"
           "Vorlan::startAutoUpdate\n"
           "Vorlan::startLogoHandler: finished\n");
    complains("SDBusLogoHandler: Failed to open user dbus: Connection refused\n"
              "Vorlan::startAutoUpdate: Failed to open dbus\n");
    linesInAnyOrder();
    // The idle application cannot be told either, four seconds later.
    EXPECT_TRUE(mRig.daemon().waitForOutput("Vorlan: Failed to open dbus\n"));
    complains("Vorlan: Failed to open dbus\n");
}
