#include "tests/process/protocol/ProtocolTest.h"

namespace {

using rig::call;
using rig::readReg;
using Bytes = qv::Bytes;

class RegisterReadTest : public ProtocolTest
{
protected:
    void setList(std::uint32_t count, const std::vector<std::int32_t>& values)
    {
        sysd().setParam(count, static_cast<std::int32_t>(values.size()));
        for (std::uint32_t i = 0; i < values.size(); ++i)
            sysd().setParam(count + 1 + i, values[i]);
    }
};

} // namespace

TEST_F(RegisterReadTest, Const0IsASingleZeroByte)
{
    boot();
    EXPECT_EQ("00 00", ask(readReg(wire::eRegRdConst0)));
    EXPECT_EQ(Calls{}, calls());
}

TEST_F(RegisterReadTest, CfgAppliedIsZeroAtFirst)
{
    boot();
    EXPECT_EQ("00 00", ask(readReg(wire::eRegRdCfgApplied)));
    EXPECT_EQ(Calls{}, calls());
}

TEST_F(RegisterReadTest, IpAddrIsAskedForAnewEachTime)
{
    boot();
    EXPECT_EQ("00 31 39 32 2e 31 36 38 2e 31 30 2e 32 30 00", ask(readReg(wire::eRegRdIpAddr)));
    EXPECT_EQ((Calls{"GetNetIPv4Addr()"}), calls());
    sysd().setIpAddress("1.2.3.4");
    EXPECT_EQ("00 31 2e 32 2e 33 2e 34 00", ask(readReg(wire::eRegRdIpAddr)));
    sysd().setIpAddress("");
    EXPECT_EQ("00 00", ask(readReg(wire::eRegRdIpAddr)));
}

TEST_F(RegisterReadTest, ParamTextIsParameter127)
{
    sysd().setParam(127, "ab");
    boot();
    EXPECT_EQ("00 61 62 00", ask(readReg(wire::eRegRdParamText)));
    EXPECT_EQ((Calls{"GetParamString(127)"}), calls());
}

TEST_F(RegisterReadTest, HundredthsListAsksForTheCountBeforeEachElement)
{
    setList(200, {2350, -150, 70000});
    boot();
    EXPECT_EQ("00 17 00 ff ff bc 02", ask(readReg(wire::eRegRdHundredthsList)));
    EXPECT_EQ((Calls{"GetParamInt(200)", "GetParamInt(201)", "GetParamInt(200)", "GetParamInt(202)", "GetParamInt(200)",
                     "GetParamInt(203)", "GetParamInt(200)"}),
              calls());
}

TEST_F(RegisterReadTest, HundredthsAreCutTowardsZeroAndToSixteenBits)
{
    boot();
    setList(200, {99, -99, 100, -100, 199, 25599, 25600, 6553599, 6553600, -3276800, 2147483647, -2147483647 - 1});
    //             99    -99   100   -100  199   25599 25600 65535 65536 -32768 21474836 -21474836
    EXPECT_EQ("00 00 00 00 00 01 00 ff ff 01 00 ff 00 00 01 ff ff 00 00 00 80 14 ae ec 51",
              ask(readReg(wire::eRegRdHundredthsList)));
}

TEST_F(RegisterReadTest, HundredthsListIsEmptyWithoutElements)
{
    sysd().setParam(200, sim::SysDaemon::Value(0));
    boot();
    EXPECT_EQ("00", ask(readReg(wire::eRegRdHundredthsList)));
    EXPECT_EQ((Calls{"GetParamInt(200)"}), calls());
    sysd().setParam(200, -5);
    EXPECT_EQ("00", ask(readReg(wire::eRegRdHundredthsList)));
    EXPECT_EQ((Calls{"GetParamInt(200)"}), calls());
}

TEST_F(RegisterReadTest, HundredthsListGrowsWhileItIsRead)
{
    setList(200, {100, 200});
    sysd().setParam(200, 1);
    when("GetParamInt(201)", [this] { sysd().setParam(200, 2); });
    boot();
    EXPECT_EQ("00 01 00 02 00", ask(readReg(wire::eRegRdHundredthsList)));
    EXPECT_EQ(
        (Calls{"GetParamInt(200)", "GetParamInt(201)", "GetParamInt(200)", "GetParamInt(202)", "GetParamInt(200)"}),
        calls());
}

TEST_F(RegisterReadTest, HundredthsListShrinksWhileItIsRead)
{
    setList(200, {100, 200, 300});
    when("GetParamInt(201)", [this] { sysd().setParam(200, 1); });
    boot();
    EXPECT_EQ("00 01 00", ask(readReg(wire::eRegRdHundredthsList)));
    EXPECT_EQ((Calls{"GetParamInt(200)", "GetParamInt(201)", "GetParamInt(200)"}), calls());
}

TEST_F(RegisterReadTest, ByteListEndsWithParameter190)
{
    setList(191, {1, 255, 256 + 7, -2});
    sysd().setParam(190, 9 + 512);
    boot();
    EXPECT_EQ("00 01 ff 07 fe 09", ask(readReg(wire::eRegRdByteList)));
    EXPECT_EQ(
        (Calls{"GetParamInt(191)", "GetParamInt(192)", "GetParamInt(191)", "GetParamInt(193)", "GetParamInt(191)",
               "GetParamInt(194)", "GetParamInt(191)", "GetParamInt(195)", "GetParamInt(191)", "GetParamInt(190)"}),
        calls());
}

TEST_F(RegisterReadTest, ByteListWithoutElementsIsOneByte)
{
    sysd().setParam(191, sim::SysDaemon::Value(0));
    sysd().setParam(190, -1);
    boot();
    EXPECT_EQ("00 ff", ask(readReg(wire::eRegRdByteList)));
    EXPECT_EQ((Calls{"GetParamInt(191)", "GetParamInt(190)"}), calls());
    sysd().setParam(191, -1);
    EXPECT_EQ("00 ff", ask(readReg(wire::eRegRdByteList)));
}

TEST_F(RegisterReadTest, ByteListGrowsAndShrinksWhileItIsRead)
{
    setList(191, {1, 2, 3});
    sysd().setParam(191, 1);
    when("GetParamInt(192)", [this] { sysd().setParam(191, 3); });
    when("GetParamInt(193)", [this] { sysd().setParam(191, 2); });
    boot();
    EXPECT_EQ("00 01 02 09", ask(readReg(wire::eRegRdByteList)));
    EXPECT_EQ((Calls{"GetParamInt(191)", "GetParamInt(192)", "GetParamInt(191)", "GetParamInt(193)", "GetParamInt(191)",
                     "GetParamInt(190)"}),
              calls());
}

TEST_F(RegisterReadTest, AListLongerThanAFrameGroupArrivesWhole)
{
    boot();
    setList(191, std::vector<std::int32_t>(300, 0x41));
    EXPECT_EQ("00" + rig::repeated(" 41", 300) + " 09", ask(readReg(wire::eRegRdByteList)));
}

TEST_F(RegisterReadTest, WordsAreTheLowSixteenBitsLowByteFirst)
{
    sysd().setParam(180, 74565);
    sysd().setParam(181, -2);
    boot();
    EXPECT_EQ("00 45 23", ask(readReg(wire::eRegRdParamWordA)));
    EXPECT_EQ((Calls{"GetParamInt(180)"}), calls());
    EXPECT_EQ("00 fe ff", ask(readReg(wire::eRegRdParamWordB)));
    EXPECT_EQ((Calls{"GetParamInt(181)"}), calls());
    sysd().setParam(181, 0x10001);
    EXPECT_EQ("00 01 00", ask(readReg(wire::eRegRdParamWordB)));
}

TEST_F(RegisterReadTest, TheStartCodeStaysUntilItIsCleared)
{
    sysd().setParam(211, 0x1FE);
    boot();
    EXPECT_EQ("00 fe", ask(readReg(wire::eRegRdStartCode)));
    EXPECT_EQ("00 fe", ask(readReg(wire::eRegRdStartCode)));
    EXPECT_EQ(Calls{}, calls());
    sysd().setParam(211, 3); // what the system daemon holds by now is of no interest
    EXPECT_EQ("00 fe", ask(readReg(wire::eRegRdStartCode)));
    EXPECT_EQ("02", ask(call(wire::eMethodClearStartCode)));
    EXPECT_EQ("00 00", ask(readReg(wire::eRegRdStartCode)));
}

TEST_F(RegisterReadTest, TheRawBrightnessIsLoggedAsAnUnsignedByte)
{
    sysd().setParam(172, 256 + 200);
    boot();
    EXPECT_EQ("00 c8", ask(readReg(wire::eRegRdDispBrightnessRaw)));
    EXPECT_EQ((Calls{"GetParamInt(172)"}), calls());
    sysd().setParam(172, -1);
    EXPECT_EQ("00 ff", ask(readReg(wire::eRegRdDispBrightnessRaw)));
    prints("Vorlan: readReg eRegRdDispBrightnessRaw 200\n"
           "Vorlan: readReg eRegRdDispBrightnessRaw 255\n");
}

TEST_F(RegisterReadTest, BytesBehindTheAddressAreIgnored)
{
    const std::map<std::uint8_t, std::string> replies = {{0, "00 00"},
                                                         {1, "00 00"},
                                                         {2, "00 31 39 32 2e 31 36 38 2e 31 30 2e 32 30 00"},
                                                         {3, "00 31 2e 34 2e 32 00"},
                                                         {4, "00 17 00 fc ff"},
                                                         {5, "00 01 02 03 09"},
                                                         {6, "00 00 05"},
                                                         {7, "00 20 03"},
                                                         {8, "00 00"},
                                                         {9, "00 c8"}};
    boot();
    for (const auto& [address, wanted] : replies) {
        for (std::size_t length = 0; length <= 16; ++length) {
            Bytes request = readReg(address);
            request.resize(request.size() + length, 0x41);
            EXPECT_EQ(wanted, ask(request)) << "register " << int{address} << ", " << length << " bytes more";
        }
    }
    prints(rig::repeated("Vorlan: readReg eRegRdDispBrightnessRaw 200\n", 17));
}

TEST_F(RegisterReadTest, AnUnknownAddressGetsNoReplyAndTheNextRequestIsServed)
{
    boot();
    for (unsigned int address = 10; address <= 255; ++address) {
        const std::string line = "Vorlan: unknown address for register read detected: " + std::to_string(address);
        tell(readReg(static_cast<std::uint8_t>(address)));
        ASSERT_TRUE(comes(sim::match::log(line)));
        complains(line + "\n");
        // Had there been a reply, this request would have the wrong number.
        ASSERT_EQ("00 31 2e 34 2e 32 00", ask(readReg(wire::eRegRdParamText)));
    }
}

TEST_F(RegisterReadTest, AnUnknownAddressGetsNoReplyAtAnyLength)
{
    boot();
    for (std::size_t length = 0; length <= 16; ++length) {
        Bytes request = readReg(10);
        request.resize(request.size() + length, 0x41);
        tell(request);
        ASSERT_TRUE(comes(sim::match::log("Vorlan: unknown address for register read detected: 10")));
        complains("Vorlan: unknown address for register read detected: 10\n");
        ASSERT_EQ("00 00", ask(readReg(wire::eRegRdConst0)));
    }
}

TEST_F(RegisterReadTest, AFailedCallIsSentAsIfItWereValid)
{
    boot();
    sysd().setBehaviour("*", sim::tBehaviour::error());
    EXPECT_EQ("00 00", ask(readReg(wire::eRegRdIpAddr)));
    EXPECT_EQ("00 00", ask(readReg(wire::eRegRdParamText)));
    EXPECT_EQ("00", ask(readReg(wire::eRegRdHundredthsList)));
    EXPECT_EQ("00 00", ask(readReg(wire::eRegRdByteList)));
    EXPECT_EQ("00 00 00", ask(readReg(wire::eRegRdParamWordA)));
    EXPECT_EQ("00 00 00", ask(readReg(wire::eRegRdParamWordB)));
    EXPECT_EQ("00 00", ask(readReg(wire::eRegRdDispBrightnessRaw)));
    complains(rig::repeated("SDBusSysD: Failed to getIpAddress\n", 2));
    for (const char* param : {"127", "200", "191", "190", "180", "181", "172"})
        complains(rig::repeated(std::string("SDBusSysD: Failed to get param: ") + param + "\n", 2));
    prints("Vorlan: readReg eRegRdDispBrightnessRaw 0\n");
}

TEST_F(RegisterReadTest, AnAnswerOfTheWrongTypeIsAFailedRead)
{
    boot();
    sysd().setBehaviour("*", sim::tBehaviour::wrongType());
    EXPECT_EQ("00 00", ask(readReg(wire::eRegRdIpAddr)));
    EXPECT_EQ("00 00", ask(readReg(wire::eRegRdParamText)));
    EXPECT_EQ("00 00 00", ask(readReg(wire::eRegRdParamWordA)));
    complains("SDBusSysD: Failed to getIpAddress\n"
              "SDBusSysD: Failed to get param: 127\n"
              "SDBusSysD: Failed to get param: 180\n");
}

TEST_F(RegisterReadTest, AnElementThatCannotBeReadIsZero)
{
    setList(200, {100, 200, 300});
    sysd().removeParam(202);
    boot();
    EXPECT_EQ("00 01 00 00 00 03 00", ask(readReg(wire::eRegRdHundredthsList)));
    complains(rig::repeated("SDBusSysD: Failed to get param: 202\n", 2));
}
