#include "tests/process/protocol/ProtocolTest.h"

namespace {

using rig::writeReg;
using sim::match::property;
using Bytes = qv::Bytes;

class RegisterWriteTest : public ProtocolTest
{
protected:
    std::string write(std::uint8_t address, const Bytes& value) { return ask(writeReg(address, value)); }

    std::string propertyNow(const std::string& name)
    {
        EXPECT_TRUE(mRig.device().desktop().waitForService());
        return mRig.device().desktop().property(name).value;
    }
};

/// As many bytes, without a zero among them.
Bytes filler(std::size_t length)
{
    return Bytes(length, 0x41);
}

} // namespace

TEST_F(RegisterWriteTest, TheProtocolVersionIsLoggedAtAnyLength)
{
    boot();
    for (std::size_t length = 0; length <= 16; ++length) {
        EXPECT_EQ(length == 1 ? "01" : "81", write(wire::eRegWrQVProtVersion, filler(length))) << length << " bytes";
        EXPECT_EQ(Calls{}, calls());
        prints(length == 0 ? "Vorlan: writeReg eRegWrQVProtVersion 0\n" : "Vorlan: writeReg eRegWrQVProtVersion 65\n");
    }
    EXPECT_EQ("01", write(wire::eRegWrQVProtVersion, {255}));
    prints("Vorlan: writeReg eRegWrQVProtVersion 255\n");
    EXPECT_EQ(Calls{}, signals());
}

TEST_F(RegisterWriteTest, AStatusIsPublishedWithItsNewValue)
{
    boot();
    EXPECT_EQ("01", write(wire::eRegWrQVStatus, {7}));
    EXPECT_EQ(Calls{}, calls());
    EXPECT_EQ((Calls{"StatusQV = 7"}), signals());
    EXPECT_EQ("01", write(wire::eRegWrQVStatus, {255}));
    EXPECT_EQ((Calls{"StatusQV = 255"}), signals());
}

TEST_F(RegisterWriteTest, AStatusThatIsStoredAlreadyHasNoEffect)
{
    boot();
    EXPECT_EQ("01", write(wire::eRegWrQVStatus, {0})); // as at the start
    EXPECT_EQ(Calls{}, signals());
    EXPECT_EQ("01", write(wire::eRegWrQVStatus, {7}));
    ASSERT_TRUE(comes(property("StatusQV", "7")));
    EXPECT_EQ("01", write(wire::eRegWrQVStatus, {7}));
    EXPECT_EQ(Calls{}, signals());
}

TEST_F(RegisterWriteTest, AStatusHasExactlyOneByte)
{
    boot();
    for (std::size_t length = 0; length <= 16; ++length) {
        if (length == 1)
            continue;
        EXPECT_EQ("81", write(wire::eRegWrQVStatus, filler(length))) << length << " bytes";
    }
    EXPECT_EQ(Calls{}, signals());
    EXPECT_EQ("01", write(wire::eRegWrQVStatus, filler(1)));
}

TEST_F(RegisterWriteTest, AnAddressIsStoredHandedOverAndPublished)
{
    boot();
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    EXPECT_EQ((Calls{R"(SetParamString(214, "10.0.0.5"))"}), calls());
    EXPECT_EQ((Calls{R"(IpAddrQV = "10.0.0.5")"}), signals());
    EXPECT_EQ(R"("10.0.0.5")", propertyNow("IpAddrQV"));
}

TEST_F(RegisterWriteTest, AnAddressIsHandedOverBeforeItIsPublished)
{
    boot();
    sysd().setBehaviour("SetParamString", sim::tBehaviour::held());
    tell(req::address("10.0.0.5"));
    ASSERT_TRUE(comes(sim::match::call("SetParamString")));
    // It is stored by now, and the desktop has not been told.
    EXPECT_EQ(R"("10.0.0.5")", propertyNow("IpAddrQV"));
    EXPECT_FALSE(came(property("IpAddrQV")));
    sysd().release();
    EXPECT_TRUE(comes(property("IpAddrQV")));
    EXPECT_EQ("01", reply());
}

TEST_F(RegisterWriteTest, AnAddressOfZerosHasNoEffect)
{
    boot();
    EXPECT_EQ("01", ask(req::address("0.0.0.0")));
    EXPECT_EQ(Calls{}, calls());
    EXPECT_EQ(Calls{}, signals());
    ask(req::address("10.0.0.5"));
    ASSERT_TRUE(comes(property("IpAddrQV")));
    EXPECT_EQ("01", ask(req::address("0.0.0.0")));
    EXPECT_EQ(Calls{}, calls());
    EXPECT_EQ(Calls{}, signals());
    EXPECT_EQ(R"("10.0.0.5")", propertyNow("IpAddrQV"));
}

TEST_F(RegisterWriteTest, OnlyExactlyTheAddressOfZerosIsIgnored)
{
    boot();
    for (const char* text : {"0.0.0.0 ", "0.0.0.00", "0.0.0", "0"}) {
        EXPECT_EQ("01", ask(req::address(text)));
        EXPECT_EQ((Calls{"SetParamString(214, \"" + std::string(text) + "\")"}), calls());
    }
}

TEST_F(RegisterWriteTest, TheSameAddressAgainHasNoEffect)
{
    boot();
    ask(req::address("10.0.0.5"));
    ASSERT_TRUE(comes(property("IpAddrQV")));
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    EXPECT_EQ(Calls{}, calls());
    EXPECT_EQ(Calls{}, signals());
    EXPECT_EQ("01", ask(req::address("10.0.0.6")));
    EXPECT_EQ((Calls{R"(SetParamString(214, "10.0.0.6"))"}), calls());
}

TEST_F(RegisterWriteTest, WhatFollowsAnAddressIsIgnored)
{
    boot();
    EXPECT_EQ("01", write(wire::eRegWrQVIpAddr, {'a', 0, 'b', 0, 0xFF}));
    EXPECT_EQ((Calls{R"(SetParamString(214, "a"))"}), calls());
}

TEST_F(RegisterWriteTest, AnAddressNeedsNoShape)
{
    boot();
    EXPECT_EQ("01", ask(req::address("anything at all")));
    EXPECT_EQ((Calls{R"(IpAddrQV = "anything at all")"}), signals());
}

TEST_F(RegisterWriteTest, TextsAreRefusedWhenEmptyOrNotEnded)
{
    boot();
    for (const auto address : {wire::eRegWrQVIpAddr, wire::eRegWrQVText1, wire::eRegWrQVText2}) {
        for (std::size_t length = 0; length <= 16; ++length)
            EXPECT_EQ("81", write(address, filler(length))) << length << " bytes";
        EXPECT_EQ("81", write(address, {0}));
        EXPECT_EQ("81", write(address, {0, 'a', 0}));
    }
    EXPECT_EQ(Calls{}, calls());
    EXPECT_EQ(Calls{}, signals());
}

TEST_F(RegisterWriteTest, TextsAreAcceptedAtEveryLength)
{
    boot();
    for (const std::uint8_t address : {wire::eRegWrQVText1, wire::eRegWrQVText2}) {
        for (std::size_t length = 1; length <= 16; ++length) {
            EXPECT_EQ("01", ask(writeReg(address, rig::text(std::string(length, 'A')))));
            EXPECT_EQ(Calls{}, calls());
        }
    }
    EXPECT_EQ(Calls{}, signals());
}

TEST_F(RegisterWriteTest, ATimeZoneIsSetWithTheFlagOfTheMoment)
{
    boot();
    EXPECT_EQ("01", write(wire::eRegWrTimeZone, req::u32(0x01020304)));
    EXPECT_EQ((Calls{"GetParamInt(111)", "GetParamBool(112)", "SetTimeZone(16909060, true)"}), calls());
    sysd().setParam(112, false);
    EXPECT_EQ("01", write(wire::eRegWrTimeZone, req::u32(5)));
    EXPECT_EQ((Calls{"GetParamInt(111)", "GetParamBool(112)", "SetTimeZone(5, false)"}), calls());
}

TEST_F(RegisterWriteTest, TheTimeZoneThatIsSetAlreadyIsNotSetAgain)
{
    boot();
    EXPECT_EQ("01", write(wire::eRegWrTimeZone, req::u32(27)));
    EXPECT_EQ((Calls{"GetParamInt(111)"}), calls());
}

TEST_F(RegisterWriteTest, ATimeZoneIsUnsigned)
{
    boot();
    EXPECT_EQ("01", write(wire::eRegWrTimeZone, req::u32(0xFFFFFFFE)));
    EXPECT_EQ((Calls{"GetParamInt(111)", "GetParamBool(112)", "SetTimeZone(4294967294, true)"}), calls());
    EXPECT_EQ("01", write(wire::eRegWrTimeZone, req::u32(0xFFFFFFFE)));
    EXPECT_EQ((Calls{"GetParamInt(111)"}), calls());
}

TEST_F(RegisterWriteTest, ATimeZoneHasExactlyFourBytes)
{
    boot();
    for (std::size_t length = 0; length <= 16; ++length) {
        if (length == 4)
            continue;
        EXPECT_EQ("81", write(wire::eRegWrTimeZone, filler(length))) << length << " bytes";
        EXPECT_EQ(Calls{}, calls());
    }
}

TEST_F(RegisterWriteTest, TheTimeZoneFlagIsSetWithTheTimeZoneOfTheMoment)
{
    boot();
    EXPECT_EQ("01", write(wire::eRegWrTimeZoneFlag, {0}));
    EXPECT_EQ((Calls{"GetParamBool(112)", "GetParamInt(111)", "SetTimeZone(27, false)"}), calls());
    EXPECT_EQ("01", write(wire::eRegWrTimeZoneFlag, {0}));
    EXPECT_EQ((Calls{"GetParamBool(112)"}), calls());
    EXPECT_EQ("01", write(wire::eRegWrTimeZoneFlag, {0x80}));
    EXPECT_EQ((Calls{"GetParamBool(112)", "GetParamInt(111)", "SetTimeZone(27, true)"}), calls());
    EXPECT_EQ("01", write(wire::eRegWrTimeZoneFlag, {2}));
    EXPECT_EQ((Calls{"GetParamBool(112)"}), calls());
}

TEST_F(RegisterWriteTest, TheTimeZoneFlagHasExactlyOneByte)
{
    boot();
    for (std::size_t length = 0; length <= 16; ++length) {
        if (length == 1)
            continue;
        EXPECT_EQ("81", write(wire::eRegWrTimeZoneFlag, filler(length))) << length << " bytes";
        EXPECT_EQ(Calls{}, calls());
    }
}

TEST_F(RegisterWriteTest, AWriteToAnUnknownAddressIsRefusedAndLogged)
{
    boot();
    for (unsigned int address = 7; address <= 255; ++address) {
        EXPECT_EQ("81", write(static_cast<std::uint8_t>(address), {1}));
        EXPECT_EQ(Calls{}, calls());
        complains("Vorlan: unknown address for register write detected: " + std::to_string(address) + "\n");
    }
}

TEST_F(RegisterWriteTest, AWriteToAnUnknownAddressIsRefusedAtAnyLength)
{
    boot();
    for (std::size_t length = 0; length <= 16; ++length) {
        EXPECT_EQ("81", write(7, filler(length)));
        complains("Vorlan: unknown address for register write detected: 7\n");
    }
}

TEST_F(RegisterWriteTest, AFailedCallIsAcceptedAllTheSame)
{
    boot();
    sysd().setBehaviour("*", sim::tBehaviour::error());
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    EXPECT_EQ((Calls{R"(IpAddrQV = "10.0.0.5")"}), signals());
    complains("SDBusSysD: Failed to set param: 214\n");
    EXPECT_EQ("01", write(wire::eRegWrTimeZone, req::u32(5)));
    complains(rig::repeated("SDBusSysD: Failed to get param: 111\n", 2) +
              rig::repeated("SDBusSysD: Failed to get param: 112\n", 2) + "SysDDBusCtrl: Failed to call beep\n");
    EXPECT_EQ("01", write(wire::eRegWrTimeZoneFlag, {1}));
    complains(rig::repeated("SDBusSysD: Failed to get param: 112\n", 2) +
              rig::repeated("SDBusSysD: Failed to get param: 111\n", 2) + "SysDDBusCtrl: Failed to call beep\n");
}
