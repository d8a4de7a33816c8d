#include "core/Vorlan.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace {

using Bytes = Vorlan::tBytes;

Bytes bytesOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

struct tString
{
    std::size_t length;
    std::string out;

    bool operator==(const tString&) const = default;
};

void PrintTo(const tString& string, std::ostream* os)
{
    *os << string.length << " \"" << string.out << '"';
}

/// Reads into a text that holds something already.
tString parsed(const Bytes& data, unsigned int pos, std::string out = "")
{
    const std::size_t length = Vorlan::parseString(data, pos, out);
    return {length, out};
}

} // namespace

TEST(ToInt, TakesFourBytesLeastSignificantFirst)
{
    EXPECT_EQ(0x04030201, Vorlan::toInt(0, {1, 2, 3, 4}));
    EXPECT_EQ(0x06050403, Vorlan::toInt(2, {1, 2, 3, 4, 5, 6, 7}));
}

TEST(ToInt, IsSigned)
{
    EXPECT_EQ(-1, Vorlan::toInt(0, {0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(std::numeric_limits<int>::min(), Vorlan::toInt(0, {0, 0, 0, 0x80}));
    EXPECT_EQ(std::numeric_limits<int>::max(), Vorlan::toInt(0, {0xFF, 0xFF, 0xFF, 0x7F}));
}

TEST(ToInt, CountsBytesBeyondTheEndAsZero)
{
    EXPECT_EQ(0x0201, Vorlan::toInt(0, {1, 2}));
    EXPECT_EQ(0, Vorlan::toInt(2, {1, 2}));
    EXPECT_EQ(0, Vorlan::toInt(0, {}));
    EXPECT_EQ(0, Vorlan::toInt(std::numeric_limits<unsigned int>::max(), {1, 2, 3, 4, 5}));
}

TEST(ToUInt64, ExtendsTheSignOfTheLowFourBytes)
{
    EXPECT_EQ(0xFFFFFFFF80000000U, Vorlan::toUInt64(0, {0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(0xFFFFFFFF80000000U, Vorlan::toUInt64(0, {0, 0, 0, 0x80, 0, 0, 0, 0}));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFU, Vorlan::toUInt64(0, {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}));
    EXPECT_EQ(0x7FFFFFFFU, Vorlan::toUInt64(0, {0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0}));
}

TEST(ToUInt64, NeverCountsTheHighFourBytes)
{
    EXPECT_EQ(1U, Vorlan::toUInt64(0, {1, 0, 0, 0, 5, 0, 0, 0}));
    for (std::size_t high = 4; high < 8; ++high) {
        Bytes data = {0x78, 0x56, 0x34, 0x12, 0, 0, 0, 0};
        data[high] = 0xFF;
        EXPECT_EQ(0x12345678U, Vorlan::toUInt64(0, data)) << "byte " << high;
    }
}

TEST(ToUInt64, BeginsAtThePosition)
{
    EXPECT_EQ(0x0C0B0A09U, Vorlan::toUInt64(2, {2, 0, 0x09, 0x0A, 0x0B, 0x0C, 1, 2, 3, 4}));
}

TEST(ParseString, TakesTheBytesUpToTheZero)
{
    const Bytes data = {2, 1, 'k', 'e', 'y', 0, 'v', 0};
    EXPECT_EQ((tString{3, "key"}), parsed(data, 2));
    EXPECT_EQ((tString{2, "ey"}), parsed(data, 3));
    EXPECT_EQ((tString{1, "v"}), parsed(data, 6));
}

TEST(ParseString, AppendsToWhatIsThere)
{
    EXPECT_EQ((tString{2, "beforeab"}), parsed({'a', 'b', 0}, 0, "before"));
}

TEST(ParseString, AnEmptyTextLooksLikeNone)
{
    EXPECT_EQ((tString{0, "kept"}), parsed({0}, 0, "kept"));
    EXPECT_EQ((tString{0, "kept"}), parsed({'a', 0, 0, 'b', 0}, 2, "kept"));
}

TEST(ParseString, WithoutAZeroThereIsNoneAndTheTextStays)
{
    EXPECT_EQ((tString{0, "kept"}), parsed({'a', 'b'}, 0, "kept"));
    EXPECT_EQ((tString{0, "kept"}), parsed({'a', 0, 'b'}, 2, "kept"));
}

TEST(ParseString, BeyondTheEndThereIsNone)
{
    const Bytes data = {'a', 0};
    for (const unsigned int pos : {2U, 3U, 1000U, std::numeric_limits<unsigned int>::max()})
        EXPECT_EQ((tString{0, "kept"}), parsed(data, pos, "kept")) << "at " << pos;
    EXPECT_EQ((tString{0, "kept"}), parsed({}, 0, "kept"));
}

TEST(ParseString, TakesAnyOtherByteAsItIs)
{
    std::string all;
    for (int byte = 1; byte < 256; ++byte)
        all.push_back(static_cast<char>(byte));
    Bytes data = bytesOf(all);
    data.push_back(0);
    EXPECT_EQ((tString{255, all}), parsed(data, 0));
}

TEST(ParseString, HasNoLimit)
{
    const std::string longText(50000, 'x');
    Bytes data = bytesOf(longText);
    EXPECT_EQ((tString{0, ""}), parsed(data, 0));
    data.push_back(0);
    EXPECT_EQ((tString{50000, longText}), parsed(data, 0));
}
