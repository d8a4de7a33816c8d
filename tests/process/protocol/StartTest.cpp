#include "tests/process/protocol/ProtocolTest.h"

namespace {

class StartTest : public ProtocolTest
{
protected:
    /// What the system daemon was asked from the start on, without the waiting for it.
    Calls startCalls()
    {
        beginAll();
        Calls all = calls();
        std::erase(all, "Ready()");
        return all;
    }

    sim::Daemon::tOptions onTheCommandLine()
    {
        sim::Daemon::tOptions options;
        options.arguments = {"-b", "57600", "-s", mRig.device().line().slavePath()};
        return options;
    }
};

} // namespace

TEST_F(StartTest, AsksTheSystemDaemonInThisOrder)
{
    boot();
    EXPECT_EQ((Calls{R"(AddCfgVar("UpdateMode"))", R"(AddCfgVar("UpdatePath"))", R"(AddCfgVar("UpdateTrigger"))",
                     R"(AddCfgVar("BootLogoMD5Sum"))", R"(AddCfgVar("AnimatedBootLogoMD5Sum"))", "GetParamInt(24)",
                     R"(GetCfgBool("IsHypervisorSys"))", "GetParamInt(211)", "SetParamInt(211, 0)", "SaveConfig()",
                     R"(GetCfgString("VorlanDev"))", R"(GetCfgInt("VorlanBaud"))"}),
              startCalls());
}

TEST_F(StartTest, RegistersTheInternalInterfaceOnAHypervisor)
{
    sysd().setCfg("IsHypervisorSys", true);
    boot();
    EXPECT_EQ(
        (Calls{R"(AddCfgVar("UpdateMode"))", R"(AddCfgVar("UpdatePath"))", R"(AddCfgVar("UpdateTrigger"))",
               R"(AddCfgVar("BootLogoMD5Sum"))", R"(AddCfgVar("AnimatedBootLogoMD5Sum"))", "GetParamInt(24)",
               R"(GetCfgBool("IsHypervisorSys"))", R"(AddCfgVar("ETHInternal"))", "GetParamInt(211)",
               "SetParamInt(211, 0)", "SaveConfig()", R"(GetCfgString("VorlanDev"))", R"(GetCfgInt("VorlanBaud"))"}),
        startCalls());
}

TEST_F(StartTest, WithARateOnTheCommandLineNothingIsConfigured)
{
    sysd().setCfg("VorlanDev", "/dev/null");
    boot(onTheCommandLine());
    EXPECT_FALSE(has(startCalls(), R"(GetCfgString("VorlanDev"))"));
    EXPECT_FALSE(has(startCalls(), R"(GetCfgInt("VorlanBaud"))"));
}

TEST_F(StartTest, ADeviceWithoutARateCountsForNothing)
{
    sim::Daemon::tOptions options;
    options.arguments = {"-s", "/dev/null"};
    boot(options);
    EXPECT_TRUE(has(startCalls(), R"(GetCfgString("VorlanDev"))"));
}

TEST_F(StartTest, NothingIsAskedBeforeTheSystemDaemonIsReady)
{
    sysd().setReady(false);
    mRig.start();
    ASSERT_TRUE(timeline().waitForCount(sim::match::call("Ready"), 3));
    beginAll();
    EXPECT_EQ(Calls{}, startCalls());
    sysd().setReady(true);
    bootRunning();
    // one line for each time that it was not
    const std::size_t asked = timeline().count(sim::match::call("Ready"));
    prints(rig::repeated(rig::kWaiting, asked - 1));
    EXPECT_EQ(R"(AddCfgVar("UpdateMode"))", startCalls().front());
}

TEST_F(StartTest, AFailingReadOfReadyMeansNotReady)
{
    sysd().setBehaviour("Ready", sim::tBehaviour::wrongType().times(1));
    boot();
    prints(rig::kWaiting);
    EXPECT_EQ("00 00", ask(rig::readReg(0)));
}

TEST_F(StartTest, TheStatusServiceStartsBeforeTheLinkIsConfigured)
{
    sysd().setBehaviour("GetCfgString", sim::tBehaviour::held());
    mRig.start();
    ASSERT_TRUE(timeline().waitFor(sim::match::call("GetCfgString")));
    EXPECT_TRUE(mRig.device().desktop().waitForName());
    sysd().release();
    bootRunning();
}

TEST_F(StartTest, TheStatusServiceStartsAfterTheParametersAreRead)
{
    sysd().setBehaviour("SaveConfig", sim::tBehaviour::held());
    mRig.start();
    ASSERT_TRUE(timeline().waitFor(sim::match::call("SaveConfig")));
    EXPECT_FALSE(timeline().find(sim::match::logWith("SDBusManager")));
    EXPECT_EQ("", mRig.daemon().err());
    sysd().release();
    bootRunning();
}

TEST_F(StartTest, TheStartCodeCountsOnce)
{
    sysd().setParam(211, 5);
    boot();
    EXPECT_EQ("00 05", ask(rig::readReg(wire::eRegRdStartCode)));
    EXPECT_EQ(sim::SysDaemon::Value(0), sysd().param(211));
    stop();
    boot();
    EXPECT_EQ("00 00", ask(rig::readReg(wire::eRegRdStartCode)));
}

TEST_F(StartTest, TheStartCodeIsWrittenBackAlsoWhenItCannotBeRead)
{
    sysd().removeParam(211);
    boot();
    complains("SDBusSysD: Failed to get param: 211\n"
              "SDBusSysD: Failed to get param: 211\n"
              "SDBusSysD: Failed to set param: 211\n");
    EXPECT_TRUE(has(startCalls(), "SetParamInt(211, 0)"));
    EXPECT_EQ("00 00", ask(rig::readReg(wire::eRegRdStartCode)));
}

TEST_F(StartTest, ALinkThatCannotBeOpenedEndsTheDaemonWithStatusZero)
{
    sysd().setCfg("VorlanDev", "");
    mRig.start();
    EXPECT_EQ(sim::exited(0), mRig.daemon().waitExit());
    EXPECT_EQ(std::string(rig::kStarted) + rig::kStopped, mRig.daemon().out());
    EXPECT_EQ("SManager: initBacked: SerialPhy::configurePort: port isn't open\n",
              rig::linesWithout(mRig.daemon().err(), "SDBusManager: "));
}

TEST_F(StartTest, ALinkWithoutConfigurationEndsTheDaemonWithStatusZero)
{
    sysd().removeCfg("VorlanDev");
    sysd().removeCfg("VorlanBaud");
    mRig.start();
    EXPECT_EQ(sim::exited(0), mRig.daemon().waitExit());
    EXPECT_EQ(std::string(rig::kStarted) + rig::kStopped, mRig.daemon().out());
    EXPECT_EQ("SDBusSysD: Failed to get cfg: VorlanDev\n"
              "SDBusSysD: Failed to get cfg: VorlanDev\n"
              "SDBusSysD: Failed to get cfg: VorlanBaud\n"
              "SDBusSysD: Failed to get cfg: VorlanBaud\n"
              "SManager: initBacked: SerialPhy::configurePort: port isn't open\n",
              rig::linesWithout(mRig.daemon().err(), "SDBusManager: "));
}
