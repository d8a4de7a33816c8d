#include "qv/Values.h"

#include "tests/qv/Hex.h"

#include <gtest/gtest.h>

namespace {

using qv::formatValue;
using qv::jsonValue;
using qv::parseValue;
using qv::ValueError;
using wire::ValueE;

/// What is typed, how it lies in the message, how it is shown to people and to programs.
struct tCase
{
    ValueE type;
    const char* typed;
    const char* bytes;
    const char* shown;
    const char* json;
};

TEST(Values, AreTypedSentAndShown)
{
    const tCase cases[] = {
        {ValueE::eBool, "true", "01", "true", "true"},
        {ValueE::eBool, "Off", "00", "false", "false"},
        {ValueE::eBool, "1", "01", "true", "true"},
        {ValueE::eU8, "80", "50", "80", "80"},
        {ValueE::eU8, "0x50", "50", "80", "80"},
        {ValueE::eU8, "0b1010000", "50", "80", "80"},
        {ValueE::eU8, "0o120", "50", "80", "80"},
        {ValueE::eU8, "255", "FF", "255", "255"},
        {ValueE::eI8, "-1", "FF", "-1", "-1"},
        {ValueE::eI8, "-0x80", "80", "-128", "-128"},
        {ValueE::eU16, "74", "4A 00", "74", "74"},
        {ValueE::eU16, "0x2345", "45 23", "9029", "9029"},
        {ValueE::eI32, "-2", "FE FF FF FF", "-2", "-2"},
        {ValueE::eI32, "-2147483648", "00 00 00 80", "-2147483648", "-2147483648"},
        {ValueE::eU32, "4294967295", "FF FF FF FF", "4294967295", "4294967295"},
        {ValueE::eTime, "@1", "01 00 00 00 00 00 00 00", "1970-01-01 00:00:01 UTC", "\"1970-01-01T00:00:01Z\""},
        {ValueE::eTime, "@-1", "FF FF FF FF FF FF FF FF", "1969-12-31 23:59:59 UTC", "\"1969-12-31T23:59:59Z\""},
        {ValueE::eTime, "2024-05-06 07:08:09", "D9 81 38 66 00 00 00 00", "2024-05-06 07:08:09 UTC",
         "\"2024-05-06T07:08:09Z\""},
        {ValueE::eTime, "2024-05-06T07:08:09Z", "D9 81 38 66 00 00 00 00", "2024-05-06 07:08:09 UTC",
         "\"2024-05-06T07:08:09Z\""},
        {ValueE::eTime, "2038-01-19 03:14", "F8 FF FF 7F 00 00 00 00", "2038-01-19 03:14:00 UTC",
         "\"2038-01-19T03:14:00Z\""},
        {ValueE::eTime, "2038-01-19 03:14:07", "FF FF FF 7F 00 00 00 00", "2038-01-19 03:14:07 UTC",
         "\"2038-01-19T03:14:07Z\""},
        {ValueE::eTime, "2024-02-29", "00 C9 DF 65 00 00 00 00", "2024-02-29 00:00:00 UTC", "\"2024-02-29T00:00:00Z\""},
        {ValueE::eText, "10.0.0.5", "31 30 2E 30 2E 30 2E 35 00", "10.0.0.5", "\"10.0.0.5\""},
        {ValueE::eText, "", "00", "", "\"\""},
        {ValueE::eText, "a\"b\\\n", "61 22 62 5C 0A 00", "a\"b\\\\\\x0A", "\"a\\\"b\\\\\\u000a\""},
        {ValueE::eText, "\xC3\xA4", "C3 A4 00", "\xC3\xA4", "\"\xC3\xA4\""},
        {ValueE::eText, "\xFF\xC3", "FF C3 00", "\\xFF\\xC3", "\"\\ufffd\\ufffd\""},
        {ValueE::eHundredthsList, "700,-1.00", "BC 02 FF FF", "700.00,-1.00", "[700.00,-1.00]"},
        {ValueE::eHundredthsList, "", "", "", "[]"},
        {ValueE::eByteList, "1, 2,0xFF;9", "01 02 FF 09", "1,2,255;9", "{\"list\":[1,2,255],\"last\":9}"},
        {ValueE::eByteList, ";7", "07", ";7", "{\"list\":[],\"last\":7}"},
        {ValueE::eDnsMode, "given", "00", "given", "\"given\""},
        {ValueE::eDnsMode, "DHCP", "01", "dhcp", "\"dhcp\""},
        {ValueE::eDnsMode, "none", "02", "none", "\"none\""},
        {ValueE::eDnsMode, "77", "4D", "77", "\"77\""},
    };
    for (const auto& c : cases) {
        const auto bytes = parseValue(c.type, c.typed);
        EXPECT_EQ(bytes, hex(c.bytes)) << c.typed;
        EXPECT_EQ(formatValue(c.type, bytes), c.shown) << c.typed;
        EXPECT_EQ(jsonValue(c.type, bytes), c.json) << c.typed;
    }
}

TEST(Values, AreRefusedWithWhatWouldDo)
{
    const std::pair<ValueE, const char*> wrong[] = {
        {ValueE::eBool, "perhaps"},
        {ValueE::eU8, "256"},
        {ValueE::eU8, "-1"},
        {ValueE::eU8, ""},
        {ValueE::eU8, "12x"},
        {ValueE::eU8, "0x"},
        {ValueE::eI8, "128"},
        {ValueE::eI8, "-129"},
        {ValueE::eU16, "65536"},
        {ValueE::eI32, "2147483648"},
        {ValueE::eU32, "4294967296"},
        {ValueE::eU32, "99999999999999999999"},
        {ValueE::eTime, "tomorrow"},
        {ValueE::eTime, "2024-02-30"},
        {ValueE::eTime, "2024-05-06 25:00"},
        {ValueE::eTime, "2024-05-06 07:08:60"},
        {ValueE::eTime, "2016-12-31 23:59:60"},
        {ValueE::eTime, "@x"},
        {ValueE::eTime, "2038-01-19 03:14:08"},
        {ValueE::eTime, "2040-01-01"},
        {ValueE::eTime, "@-2147483649"},
        {ValueE::eByteList, "1,2,3"},
        {ValueE::eByteList, "1,,3;4"},
        {ValueE::eByteList, "1;256"},
        {ValueE::eDnsMode, "static"},
        {ValueE::eDnsMode, "256"},
        {ValueE::eHundredthsList, "x"},
        {ValueE::eHundredthsList, "1."},
        {ValueE::eHundredthsList, "1.50"},
        {ValueE::eHundredthsList, "40000"},
    };
    for (const auto& [type, text] : wrong) {
        EXPECT_THROW(parseValue(type, text), ValueError) << qv::typeName(type) << " " << text;
    }
    EXPECT_THROW(parseValue(ValueE::eText, std::string_view("a\0b", 3)), ValueError);
    try {
        parseValue(ValueE::eBool, "perhaps");
    } catch (const ValueError& error) {
        EXPECT_STREQ(error.what(), "'perhaps' will not do: true or false (yes, no, on, off, 1, 0)");
    }
}

TEST(Values, ANumberKeepsToBothBounds)
{
    EXPECT_EQ(qv::parseNumber("1", 1, 5), 1);
    EXPECT_EQ(qv::parseNumber("-0", 0, 5), 0);
    for (const auto* text : {"0", "-0", "-1", "6"}) {
        EXPECT_THROW(qv::parseNumber(text, 1, 5), ValueError) << text;
    }
}

TEST(Values, NowIsNow)
{
    const auto before = std::time(nullptr);
    const auto bytes = parseValue(ValueE::eTime, "now");
    const auto after = std::time(nullptr);
    std::int64_t value = 0;
    for (std::size_t i = 8; i-- > 0;) {
        value = value << 8 | bytes[i];
    }
    EXPECT_GE(value, before);
    EXPECT_LE(value, after);
}

TEST(Values, BytesThatAreNoSuchValueAreShownAsTheyAre)
{
    EXPECT_EQ(formatValue(ValueE::eU8, hex("01 02")), "01 02 (not a u8)");
    EXPECT_EQ(formatValue(ValueE::eU8, {}), "nothing (not a u8)");
    EXPECT_EQ(formatValue(ValueE::eText, hex("61")), "61 (not a text)");
    EXPECT_EQ(jsonValue(ValueE::eHundredthsList, hex("61")), "\"61 (not a hundredths list)\"");
}

TEST(Values, KnowTheirSize)
{
    EXPECT_EQ(qv::valueSize(ValueE::eI32, {}), 4U);
    EXPECT_EQ(qv::valueSize(ValueE::eText, hex("61 62 00 63")), 3U);
    EXPECT_EQ(qv::valueSize(ValueE::eText, hex("61 62")), 3U) << "its zero byte is missing";
    EXPECT_EQ(qv::valueSize(ValueE::eByteList, hex("61 62")), 2U);
}

TEST(Values, ATextDoesNothingToATerminal)
{
    EXPECT_EQ(qv::escapedText("a\x1B[2J\x07\x7F"), R"(a\x1B[2J\x07\x7F)");
    EXPECT_EQ(qv::escapedText("\xC2\x9B"
                              "2J"),
              R"(\xC2\x9B2J)")
        << "the control character of two bytes";
    EXPECT_EQ(qv::escapedText("\x9B"
                              "2J"),
              R"(\x9B2J)")
        << "and that of one";
    EXPECT_EQ(qv::escapedText("\xC2\xA0\xE2\x82\xAC"), "\xC2\xA0\xE2\x82\xAC");
    EXPECT_EQ(qv::escapedText(R"(\x07)"), R"(\\x07)") << "not to be taken for a bell";
}

TEST(Values, InvalidUtf8NeverReachesJson)
{
    EXPECT_EQ(qv::jsonString("\xE2\x82\xAC"), "\"\xE2\x82\xAC\"");
    EXPECT_EQ(qv::jsonString("\xF0\x9F\x98\x80"), "\"\xF0\x9F\x98\x80\"");
    EXPECT_EQ(qv::jsonString("\xC0\x80"), "\"\\ufffd\\ufffd\"");
    EXPECT_EQ(qv::jsonString("\xED\xA0\x80"), "\"\\ufffd\\ufffd\\ufffd\"");
    EXPECT_EQ(qv::jsonString("\xE2\x82"), "\"\\ufffd\\ufffd\"");
}

} // namespace
