#include "protocol/Wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <string>

namespace {

/// A name by which people call something: small letters, digits and hyphens.
bool isName(const std::string& text)
{
    return !text.empty() && std::ranges::all_of(text, [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
    });
}

template <std::size_t N>
void expectAddressIsIndex(const wire::tRegister (&registers)[N])
{
    for (std::size_t i = 0; i < N; ++i)
        EXPECT_EQ(i, registers[i].address) << registers[i].enumerator;
}

template <std::size_t N>
void expectNames(const wire::tRegister (&registers)[N], const std::string& prefix)
{
    std::set<std::string> enumerators;
    std::set<std::string> names;
    for (const wire::tRegister& reg : registers) {
        EXPECT_TRUE(std::string(reg.enumerator).starts_with(prefix)) << reg.enumerator;
        EXPECT_TRUE(isName(reg.value.name)) << reg.value.name;
        EXPECT_STRNE("", reg.value.meaning) << reg.value.name;
        EXPECT_TRUE(enumerators.insert(reg.enumerator).second) << reg.enumerator << " twice";
        EXPECT_TRUE(names.insert(reg.value.name).second) << reg.value.name << " twice";
    }
}

} // namespace

TEST(Wire, EveryRegisterIsAtTheIndexOfItsAddress)
{
    expectAddressIsIndex(wire::kReadRegisters);
    expectAddressIsIndex(wire::kWriteRegisters);
}

TEST(Wire, EveryMethodIsAtTheIndexOfItsNumber)
{
    for (std::size_t i = 0; i < std::size(wire::kMethods); ++i)
        EXPECT_EQ(i, wire::kMethods[i].id) << wire::kMethods[i].name;
}

TEST(Wire, KnowsTenRegistersToReadSevenToWriteAndThirteenMethods)
{
    EXPECT_EQ(10U, std::size(wire::kReadRegisters));
    EXPECT_EQ(7U, std::size(wire::kWriteRegisters));
    EXPECT_EQ(13U, std::size(wire::kMethods));
}

TEST(Wire, EveryRegisterHasItsOwnNames)
{
    expectNames(wire::kReadRegisters, "eRegRd");
    expectNames(wire::kWriteRegisters, "eRegWr");
}

TEST(Wire, EveryMethodAndArgumentHasAName)
{
    std::set<std::string> names;
    for (const wire::tMethod& method : wire::kMethods) {
        EXPECT_TRUE(isName(method.name)) << method.name;
        EXPECT_TRUE(names.insert(method.name).second) << method.name << " twice";
        EXPECT_STRNE("", method.meaning) << method.name;
        std::set<std::string> args;
        for (const wire::tField& arg : method.args) {
            EXPECT_TRUE(isName(arg.name)) << method.name << ": " << arg.name;
            EXPECT_TRUE(args.insert(arg.name).second) << method.name << ": " << arg.name << " twice";
            EXPECT_STRNE("", arg.meaning) << method.name << ": " << arg.name;
        }
    }
}

TEST(Wire, CommandsAndFlagsOfTheFirstByteDoNotOverlap)
{
    for (const unsigned command : {wire::eCmdReadReg, wire::eCmdWriteReg, wire::eCmdCall})
        EXPECT_EQ(command, command & wire::kCommandMask);
    EXPECT_EQ(0x0F, wire::kCommandMask);
    EXPECT_EQ(0x80, wire::kErrorBit);
    EXPECT_EQ(0, wire::kCommandMask & wire::kErrorBit);
    EXPECT_EQ(4, wire::kStatusRunning);
}

/// What a sender builds from the table has the length that the daemon asks for.
TEST(Wire, ArgumentsOfFixedSizeAddUpToTheLengthThatIsChecked)
{
    const auto size = [](wire::ValueE type) -> std::size_t {
        switch (type) {
        case wire::ValueE::eBool:
        case wire::ValueE::eU8:
        case wire::ValueE::eI8:
        case wire::ValueE::eDnsMode:
            return 1;
        case wire::ValueE::eU16:
            return 2;
        case wire::ValueE::eI32:
        case wire::ValueE::eU32:
            return 4;
        case wire::ValueE::eTime:
            return 8;
        case wire::ValueE::eText:
        case wire::ValueE::eHundredthsList:
        case wire::ValueE::eByteList:
            break;
        }
        return 1000; // of no fixed size
    };
    const struct
    {
        wire::MethodE method;
        std::size_t length;
    } kLengths[] = {{wire::eMethodSetTime, 10},         {wire::eMethodEmuInputEv, 2}, {wire::eMethodSetBrightness, 3},
                    {wire::eMethodSetBrightnessRaw, 3}, {wire::eMethodBeepParam, 6},  {wire::eMethodBeep, 2},
                    {wire::eMethodClearStartCode, 2}};
    for (const auto& [method, length] : kLengths) {
        std::size_t sum = 2;
        for (const wire::tField& arg : wire::kMethods[method].args)
            sum += size(arg.type);
        EXPECT_EQ(length, sum) << wire::kMethods[method].name;
    }
    EXPECT_EQ(1U, size(wire::kWriteRegisters[wire::eRegWrQVProtVersion].value.type));
    EXPECT_EQ(1U, size(wire::kWriteRegisters[wire::eRegWrQVStatus].value.type));
    EXPECT_EQ(4U, size(wire::kWriteRegisters[wire::eRegWrTimeZone].value.type));
    EXPECT_EQ(1U, size(wire::kWriteRegisters[wire::eRegWrTimeZoneFlag].value.type));
}
