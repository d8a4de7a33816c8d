#include "tests/process/protocol/ProtocolTest.h"

namespace {

using rig::call;
using Bytes = qv::Bytes;

struct tMethodRow
{
    const char* name;
    std::uint8_t method;
    std::size_t arguments; ///< bytes
    std::vector<std::string> calls;
};

void PrintTo(const tMethodRow& row, std::ostream* out)
{
    *out << row.name;
}

/// The methods of a fixed length, called with the argument bytes 1, 2, 3 and so on.
const tMethodRow kFixedMethods[] = {
    {"SetTime", wire::eMethodSetTime, 8, {"SetUnixTime(67305985)"}},
    {"EmulateInputEvent", wire::eMethodEmuInputEv, 0, {"EmulateInputEvent()"}},
    {"SetBrightness", wire::eMethodSetBrightness, 1, {"SetBrightness(1)"}},
    {"SetBrightnessRaw", wire::eMethodSetBrightnessRaw, 1, {"SetBrightnessRaw(1)"}},
    {"BeepParam", wire::eMethodBeepParam, 4, {"BeepParam(513, 1027)"}},
    {"Beep", wire::eMethodBeep, 0, {"Beep()"}},
    {"ClearStartCode", wire::eMethodClearStartCode, 0, {}},
};

Bytes countingUp(std::size_t length)
{
    Bytes out(length);
    for (std::size_t i = 0; i < length; ++i)
        out[i] = static_cast<std::uint8_t>(i + 1);
    return out;
}

class MethodTest : public ProtocolTest
{};

class FixedMethodTest : public MethodTest, public testing::WithParamInterface<tMethodRow>
{};

} // namespace

TEST_P(FixedMethodTest, IsCarriedOutAtItsLengthAndAtNoOther)
{
    const tMethodRow& row = GetParam();
    boot();
    for (std::size_t length = 0; length <= 16; ++length) {
        const bool right = length == row.arguments;
        EXPECT_EQ(right ? "02" : "82", ask(call(row.method, countingUp(length)))) << length << " bytes of arguments";
        EXPECT_EQ(right ? row.calls : Calls{}, calls()) << length << " bytes of arguments";
    }
}

INSTANTIATE_TEST_SUITE_P(Table, FixedMethodTest, testing::ValuesIn(kFixedMethods),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(MethodTest, TheHighNibbleOfTheCommandIsIgnored)
{
    boot();
    EXPECT_EQ("02", ask({0x12, 0x09}));
    EXPECT_EQ((Calls{"Beep()"}), calls());
    EXPECT_EQ("02", ask({0xF2, 0x09}));
    EXPECT_EQ("82", ask({0xF2, 0x09, 0x00}));
    EXPECT_EQ("00 00", ask({0xF0, 0x00}));
    EXPECT_EQ("01", ask({0x81, wire::eRegWrQVStatus, 1}));
    EXPECT_EQ("81", ask({0x81, wire::eRegWrQVStatus}));
}

TEST_F(MethodTest, BrightnessOfTheWrongLengthIsRefused)
{
    boot();
    EXPECT_EQ("82", ask({0x02, 0x06, 0x50, 0x00}));
    EXPECT_EQ(Calls{}, calls());
}

TEST_F(MethodTest, NumbersKeepTheirWholeRange)
{
    boot();
    ask(call(wire::eMethodSetBrightness, {0xFF}));
    EXPECT_EQ((Calls{"SetBrightness(255)"}), calls());
    ask(call(wire::eMethodSetBrightnessRaw, {0xFF}));
    EXPECT_EQ((Calls{"SetBrightnessRaw(255)"}), calls());
    ask(call(wire::eMethodBeepParam, {0xFF, 0xFF, 0x00, 0x80}));
    EXPECT_EQ((Calls{"BeepParam(65535, 32768)"}), calls());
}

TEST_F(MethodTest, TheTimeIsItsLowFourBytesWithTheirSign)
{
    boot();
    ask(call(wire::eMethodSetTime, {0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ((Calls{"SetUnixTime(18446744071562067968)"}), calls());
    ask(call(wire::eMethodSetTime, {1, 0, 0, 0, 5, 0, 0, 0}));
    EXPECT_EQ((Calls{"SetUnixTime(1)"}), calls());
    ask(req::setTime());
    EXPECT_EQ((Calls{"SetUnixTime(1700000000)"}), calls());
}

TEST_F(MethodTest, OnAHypervisorTheTimeIsNotSet)
{
    sysd().setCfg("IsHypervisorSys", true);
    boot();
    EXPECT_EQ("02", ask(req::setTime()));
    EXPECT_EQ(Calls{}, calls());
    EXPECT_EQ("82", ask(call(wire::eMethodSetTime, {1, 2, 3})));
}

TEST_F(MethodTest, TheStartCodeIsClearedAtTheRightLengthOnly)
{
    sysd().setParam(211, 7);
    boot();
    EXPECT_EQ("82", ask(call(wire::eMethodClearStartCode, {0})));
    EXPECT_EQ("00 07", ask(rig::readReg(wire::eRegRdStartCode)));
    EXPECT_EQ("02", ask(call(wire::eMethodClearStartCode)));
    EXPECT_EQ(Calls{}, calls());
    EXPECT_EQ("00 00", ask(rig::readReg(wire::eRegRdStartCode)));
}

TEST_F(MethodTest, ApplyConfigIsAcceptedAtAnyLengthAndLogged)
{
    boot();
    for (std::size_t length = 0; length <= 16; ++length) {
        EXPECT_EQ("02", ask(call(wire::eMethodApplyConfig, countingUp(length))));
        EXPECT_EQ(Calls{}, calls());
        prints("Vorlan: ApplyConfig\n");
    }
}

TEST_F(MethodTest, UnknownMethodsAreRefusedAndLogged)
{
    boot();
    for (unsigned int method = 13; method <= 255; ++method) {
        EXPECT_EQ("82", ask(call(static_cast<std::uint8_t>(method))));
        EXPECT_EQ(Calls{}, calls());
        complains("Vorlan: unknown methodID detected: " + std::to_string(method) + "\n");
    }
}

TEST_F(MethodTest, UnknownMethodsAreRefusedAtAnyLength)
{
    boot();
    for (std::size_t length = 0; length <= 16; ++length) {
        EXPECT_EQ("82", ask(call(13, countingUp(length))));
        complains("Vorlan: unknown methodID detected: 13\n");
    }
}

TEST_F(MethodTest, UnknownCommandsAreRefusedAndLoggedWithTheirWholeByte)
{
    boot();
    for (const unsigned int high : {0x00U, 0x30U, 0xF0U}) {
        for (unsigned int low = 3; low <= 15; ++low) {
            const auto first = static_cast<std::uint8_t>(high | low);
            EXPECT_EQ(rig::hex(Bytes{static_cast<std::uint8_t>(0x80U | low)}), ask({first, 0x00}));
            complains("Vorlan: unknown cmd detected: " + std::to_string(first) + "\n");
        }
    }
}

TEST_F(MethodTest, UnknownCommandsAreRefusedAtAnyLength)
{
    boot();
    for (std::size_t length = 1; length <= 16; ++length) {
        EXPECT_EQ("87", ask(req::joined({{0x07}, countingUp(length)})));
        complains("Vorlan: unknown cmd detected: 7\n");
    }
}

TEST_F(MethodTest, AFailedCallIsAcceptedAllTheSame)
{
    boot();
    sysd().setBehaviour("*", sim::tBehaviour::error());
    EXPECT_EQ("02", ask(req::setTime()));
    EXPECT_EQ("02", ask(call(wire::eMethodEmuInputEv)));
    EXPECT_EQ("02", ask(call(wire::eMethodSetBrightness, {1})));
    EXPECT_EQ("02", ask(call(wire::eMethodSetBrightnessRaw, {1})));
    EXPECT_EQ("02", ask(call(wire::eMethodBeepParam, {1, 2, 3, 4})));
    EXPECT_EQ("02", ask(call(wire::eMethodBeep)));
    complains("SysDDBusCtrl: Failed to call setTime\n"
              "SysDDBusCtrl: Failed to call methodNoParam\n"
              "SysDDBusCtrl: Failed to call setBrightness\n"
              "SysDDBusCtrl: Failed to call setBrightnessRaw\n"
              "SDBusSysD: Failed to call beep\n"
              "SysDDBusCtrl: Failed to call methodNoParam\n");
}

/// Method 4 at any length: its reply first, then the call, then the end.
class StartUpdateTest : public MethodTest, public testing::WithParamInterface<std::size_t>
{};

TEST_P(StartUpdateTest, RepliesThenCallsThenEnds)
{
    boot();
    sysd().setBehaviour("SysUpdate", sim::tBehaviour::held());
    EXPECT_EQ("02", ask(call(wire::eMethodStartUpdate, countingUp(GetParam())))); // while the call has no answer
    EXPECT_TRUE(comes(sim::match::call("SysUpdate")));
    EXPECT_TRUE(mRig.daemon().running());
    sysd().release();
    EXPECT_EQ(sim::exited(0), mRig.daemon().waitExit());
    EXPECT_EQ((Calls{"SysUpdate()"}), calls());
    EXPECT_EQ("", rig::hex(mRig.leftovers())); // exactly one reply
}

INSTANTIATE_TEST_SUITE_P(Lengths, StartUpdateTest, testing::Range(std::size_t{0}, std::size_t{17}));

TEST_F(MethodTest, StartUpdateEndsTheDaemonAlsoWhenTheUpdateFails)
{
    boot();
    sysd().goAway();
    EXPECT_EQ("02", ask(call(wire::eMethodStartUpdate)));
    EXPECT_EQ(sim::exited(0), mRig.daemon().waitExit());
    complains("SysDDBusCtrl: Failed to call methodNoParam\n");
}
