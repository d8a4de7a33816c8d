#include "MarkdownTable.h"
#include "protocol/Wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <map>
#include <sstream>

namespace {

using markdown::Row;
using testing::Each;
using testing::ElementsAreArray;
using wire::ValueE;

constexpr char kWire[] = "wire.md";

std::string words(ValueE type)
{
    static const std::map<ValueE, std::string> kWords = {
        {ValueE::eBool, "boolean"},
        {ValueE::eU8, "8 bits, unsigned"},
        {ValueE::eI8, "8 bits, signed"},
        {ValueE::eU16, "16 bits, unsigned"},
        {ValueE::eI32, "32 bits, signed"},
        {ValueE::eU32, "32 bits, unsigned"},
        {ValueE::eTime, "64 bits: seconds since 1970"},
        {ValueE::eText, "text"},
        {ValueE::eHundredthsList, "16 bits, signed, each"},
        {ValueE::eByteList, "8 bits each, then one byte"},
        {ValueE::eDnsMode, "8 bits: DNS mode"},
    };
    return kWords.at(type);
}

std::vector<Row> rowsOf(std::span<const wire::tRegister> registers)
{
    std::vector<Row> rows;
    for (const auto& reg : registers)
        rows.push_back({std::to_string(reg.address), reg.value.name, words(reg.value.type), reg.value.meaning});
    return rows;
}

/// Reading the bytes of a worked example.
std::vector<unsigned char> bytes(const std::string& hex)
{
    std::vector<unsigned char> result;
    std::istringstream in(hex);
    for (std::string digits; in >> digits;)
        result.push_back(static_cast<unsigned char>(std::stoul(digits, nullptr, 16)));
    return result;
}

/// CRC-16/IBM-3740, bit by bit: over a frame with its CRC it is 0.
unsigned int crc(const std::vector<unsigned char>& data)
{
    unsigned int value = 0xFFFF;
    for (const unsigned char byte : data) {
        value ^= static_cast<unsigned int>(byte) << 8U;
        for (int bit = 0; bit < 8; ++bit)
            value = ((value & 0x8000U) != 0 ? (value << 1U) ^ 0x1021U : value << 1U) & 0xFFFFU;
    }
    return value;
}

/// COBS for frames shorter than 254 bytes, with the delimiter.
std::vector<unsigned char> stuffed(const std::vector<unsigned char>& frame)
{
    std::vector<unsigned char> result{1};
    std::size_t code = 0;
    for (const unsigned char byte : frame) {
        if (byte == 0)
            code = result.size();
        else
            ++result[code];
        result.push_back(byte == 0 ? 1 : byte);
    }
    result.push_back(0);
    return result;
}

TEST(WireDoc, ListsTheRegistersToReadInTheirOrder)
{
    auto rows = markdown::table(kWire, {"address", "name", "value", "meaning"});
    ASSERT_GE(rows.size(), std::size(wire::kReadRegisters));
    rows.resize(std::size(wire::kReadRegisters));
    EXPECT_THAT(rows, ElementsAreArray(rowsOf(wire::kReadRegisters)));
}

TEST(WireDoc, ListsTheRegistersToWriteInTheirOrder)
{
    auto rows = markdown::table(kWire, {"address", "name", "value", "meaning"});
    ASSERT_EQ(rows.size(), std::size(wire::kReadRegisters) + std::size(wire::kWriteRegisters));
    rows.erase(rows.begin(), rows.begin() + std::ssize(wire::kReadRegisters));
    EXPECT_THAT(rows, ElementsAreArray(rowsOf(wire::kWriteRegisters)));
}

TEST(WireDoc, ListsTheMethodsWithTheirArguments)
{
    std::vector<Row> expected;
    std::vector<Row> expectedArguments;
    for (const auto& method : wire::kMethods) {
        std::string names;
        for (const auto& arg : method.args) {
            names += (names.empty() ? "" : ", ") + std::string(arg.name);
            expectedArguments.push_back({method.name, arg.name, words(arg.type), arg.meaning});
        }
        expected.push_back({std::to_string(method.id), method.name, names, method.meaning});
    }
    EXPECT_THAT(markdown::table(kWire, {"number", "name", "arguments", "meaning"}), ElementsAreArray(expected));
    EXPECT_THAT(markdown::table(kWire, {"method", "argument", "value", "meaning"}),
                ElementsAreArray(expectedArguments));
}

TEST(WireDoc, ShowsBytesThatAreRight)
{
    const auto rows = markdown::table(kWire, {"who", "what", "frame", "on the line"});
    ASSERT_EQ(rows.size(), 10U);
    unsigned int sequence = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row[1]);
        const auto frame = bytes(row[2]);
        EXPECT_EQ(crc(frame), 0U);
        EXPECT_EQ(stuffed(frame), bytes(row[3]));
        if (row[0] == "daemon")
            ++sequence;
        EXPECT_EQ(frame[0] & 0x0FU, sequence) << "a request carries the number of the reply before it";
    }
}

} // namespace
