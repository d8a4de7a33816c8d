#include "tests/process/protocol/ProtocolTest.h"

namespace {

using rig::call;
using rig::text;
using Bytes = qv::Bytes;

class ConfigValuesTest : public ProtocolTest
{
protected:
    std::string setStr(const Bytes& arguments) { return ask(call(wire::eMethodSetCfgStr, arguments)); }
    std::string setLong(const Bytes& arguments) { return ask(call(wire::eMethodSetCfgLong, arguments)); }
    std::string update(const Bytes& arguments) { return ask(call(wire::eMethodAppTriggeredUpdate, arguments)); }
};

/// "A" and its end over and over.
Bytes endedTexts(std::size_t length)
{
    Bytes out(length);
    for (std::size_t i = 0; i < length; i += 2)
        out[i] = 'A';
    return out;
}

} // namespace

TEST_F(ConfigValuesTest, ATextIsSet)
{
    boot();
    EXPECT_EQ("02", setStr(req::joined({text("VisuURL"), text("http://qv/")})));
    EXPECT_EQ((Calls{R"(SetCfgString("VisuURL", "http://qv/"))"}), calls());
}

TEST_F(ConfigValuesTest, AMissingValueIsTheEmptyText)
{
    boot();
    EXPECT_EQ("02", setStr({'K', 0}));
    EXPECT_EQ((Calls{R"(SetCfgString("K", ""))"}), calls());
    EXPECT_EQ("02", setStr({'K', 0, 0}));
    EXPECT_EQ((Calls{R"(SetCfgString("K", ""))"}), calls());
    complains(rig::repeated("SDBusSysD: Failed to set cfg: K\n", 2)); // nobody registered it
}

TEST_F(ConfigValuesTest, AValueThatIsNotEndedIsTheEmptyText)
{
    boot();
    EXPECT_EQ("02", setStr(req::joined({text("VisuMode"), {'W', 'e', 'b'}})));
    EXPECT_EQ((Calls{R"(SetCfgString("VisuMode", ""))"}), calls());
}

TEST_F(ConfigValuesTest, WhatFollowsTheValueIsIgnored)
{
    boot();
    EXPECT_EQ("02", setStr(req::joined({text("VisuMode"), text("Web"), {'x', 0, 0xFF}})));
    EXPECT_EQ((Calls{R"(SetCfgString("VisuMode", "Web"))"}), calls());
    EXPECT_EQ("02", setLong(req::joined({text("UpdateTrigger"), req::u32(1), {9, 9}})));
    EXPECT_EQ((Calls{R"(SetCfgInt("UpdateTrigger", 1))"}), calls());
}

TEST_F(ConfigValuesTest, ANumberIsSetWithItsSign)
{
    boot();
    EXPECT_EQ("02", setLong(req::joined({text("UpdateTrigger"), req::u32(0x01020304)})));
    EXPECT_EQ((Calls{R"(SetCfgInt("UpdateTrigger", 16909060))"}), calls());
    EXPECT_EQ("02", setLong(req::joined({text("Startmode"), req::u32(0xFFFFFFFF)})));
    EXPECT_EQ((Calls{R"(SetCfgInt("Startmode", -1))"}), calls());
    EXPECT_EQ("02", setLong(req::joined({text("Startmode"), req::u32(0x80000000)})));
    EXPECT_EQ((Calls{R"(SetCfgInt("Startmode", -2147483648))"}), calls());
}

TEST_F(ConfigValuesTest, ANumberThatIsCutShortIsRefused)
{
    boot();
    for (std::size_t length = 0; length < 4; ++length) {
        EXPECT_EQ("82", setLong(req::joined({text("Startmode"), Bytes(length, 1)}))) << length << " bytes";
        EXPECT_EQ(Calls{}, calls());
    }
}

TEST_F(ConfigValuesTest, KeysAndPathsAreRefusedWhenEmptyOrNotEnded)
{
    boot();
    for (const std::uint8_t method :
         {wire::eMethodSetCfgStr, wire::eMethodSetCfgLong, wire::eMethodAppTriggeredUpdate}) {
        for (std::size_t length = 0; length <= 16; ++length) {
            EXPECT_EQ("82", ask(call(method, Bytes(length, 'A')))) << length << " bytes without an end";
            EXPECT_EQ(Calls{}, calls());
            EXPECT_EQ("82", ask(call(method, Bytes(length, 0)))) << length << " zeros";
            EXPECT_EQ(Calls{}, calls());
        }
        EXPECT_EQ("82", ask(call(method, {0, 'A', 0, 'B', 0, 0, 0, 0})));
        EXPECT_EQ(Calls{}, calls());
    }
}

TEST_F(ConfigValuesTest, EveryLengthOfEndedTextsIsAcceptedAsSoonAsItSuffices)
{
    sysd().setCfg("A", sim::SysDaemon::CfgValue{}); // registered, of no type yet
    boot();
    for (std::size_t length = 0; length <= 16; ++length) {
        EXPECT_EQ(length < 2 ? "82" : "02", setStr(endedTexts(length))) << length << " bytes";
        EXPECT_EQ(length < 2 ? 0U : 1U, calls().size());
        EXPECT_EQ(length < 2 ? "82" : "02", update(endedTexts(length))) << length << " bytes";
        EXPECT_EQ(length < 2 ? 0U : 4U, calls().size());
    }
    sysd().setCfg("A", sim::SysDaemon::CfgValue{});
    for (std::size_t length = 0; length <= 16; ++length) {
        EXPECT_EQ(length < 6 ? "82" : "02", setLong(endedTexts(length))) << length << " bytes";
        EXPECT_EQ(length < 6 ? Calls{} : Calls{R"(SetCfgInt("A", 4259905))"}, calls()) << length << " bytes";
    }
}

TEST_F(ConfigValuesTest, AFailedCallIsAcceptedAllTheSame)
{
    boot();
    EXPECT_EQ("02", setStr(req::joined({text("NoSuchKey"), text("x")})));
    EXPECT_EQ("02", setLong(req::joined({text("NoSuchKey"), req::u32(1)})));
    complains(rig::repeated("SDBusSysD: Failed to set cfg: NoSuchKey\n", 2));
}

TEST_F(ConfigValuesTest, AnUpdateIsSavedBeforeItIsStarted)
{
    boot();
    EXPECT_EQ("02", update(text("/media/usb/update.bin")));
    EXPECT_EQ(
        (Calls{R"(SetParamString(66, "/media/usb/update.bin"))", "SetParamInt(61, 3)", "SaveConfig()", "SysUpdate()"}),
        calls());
    EXPECT_EQ(sim::SysDaemon::Value(3), sysd().param(61));
}

TEST_F(ConfigValuesTest, AnUpdateIsStartedAlsoWhenItCouldNotBeSaved)
{
    boot();
    sysd().setBehaviour("*", sim::tBehaviour::error());
    EXPECT_EQ("02", update(text("/p")));
    EXPECT_EQ((Calls{R"(SetParamString(66, "/p"))", "SetParamInt(61, 3)", "SaveConfig()", "SysUpdate()"}), calls());
    complains("SDBusSysD: Failed to set param: 66\n"
              "SDBusSysD: Failed to set param: 61\n" +
              rig::repeated("SysDDBusCtrl: Failed to call methodNoParam\n", 2));
}

TEST_F(ConfigValuesTest, TheDaemonGoesOnServingDuringAnUpdateThatTheApplicationTriggered)
{
    boot();
    EXPECT_EQ("02", update(text("/p")));
    EXPECT_EQ("00 31 2e 34 2e 32 00", ask(rig::readReg(wire::eRegRdParamText)));
}
