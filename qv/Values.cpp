#include "qv/Values.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <limits>
#include <optional>

namespace qv {

namespace {

using wire::ValueE;

struct tType
{
    ValueE type;
    const char* name;
    const char* hint;
    std::size_t size; ///< 0: as long as it is
};

constexpr tType kTypes[] = {
    {ValueE::eBool, "bool", "true or false (yes, no, on, off, 1, 0)", 1},
    {ValueE::eU8, "u8", "a number from 0 to 255, in any base: 80, 0x50, 0b1010000", 1},
    {ValueE::eI8, "i8", "a number from -128 to 127, in any base", 1},
    {ValueE::eU16, "u16", "a number from 0 to 65535, in any base", 2},
    {ValueE::eI32, "i32", "a number from -2147483648 to 2147483647, in any base", 4},
    {ValueE::eU32, "u32", "a number from 0 to 4294967295, in any base", 4},
    {ValueE::eTime, "time", "a UTC date like '2024-05-06 07:08:09', seconds like @1714979289, or now", 8},
    {ValueE::eText, "text", "a text", 0},
    {ValueE::eHundredthsList, "hundredths list", "decimals with commas, whole ones: 23.00,-4.00", 0},
    {ValueE::eByteList, "byte list", "numbers from 0 to 255 with commas, the last one after a semicolon: 1,2,3;9", 0},
    {ValueE::eDnsMode, "DNS mode", "given (0), dhcp (1), none (2) or a number up to 255", 1},
};

const tType& typeOf(ValueE type)
{
    return *std::ranges::find(kTypes, type, &tType::type);
}

[[noreturn]] void refuse(ValueE type, std::string_view text)
{
    throw ValueError("'" + std::string(text) + "' will not do: " + typeHint(type));
}

Bytes littleEndian(std::uint64_t value, std::size_t size)
{
    Bytes bytes(size);
    for (auto& byte : bytes) {
        byte = static_cast<std::uint8_t>(value & 0xFF);
        value >>= 8;
    }
    return bytes;
}

std::uint64_t fromLittleEndian(ByteView bytes)
{
    std::uint64_t value = 0;
    for (std::size_t i = bytes.size(); i-- > 0;) {
        value = value << 8 | bytes[i];
    }
    return value;
}

std::int64_t fromLittleEndianSigned(ByteView bytes)
{
    const auto shift = 8 * (sizeof(std::uint64_t) - bytes.size());
    return static_cast<std::int64_t>(fromLittleEndian(bytes) << shift) >> shift;
}

std::string lower(std::string_view text)
{
    std::string out(text);
    std::ranges::transform(out, out.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string_view trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::vector<std::string_view> splitList(std::string_view text)
{
    std::vector<std::string_view> parts;
    if (trimmed(text).empty()) {
        return parts;
    }
    for (;;) {
        const auto comma = text.find(',');
        parts.push_back(trimmed(text.substr(0, comma)));
        if (comma == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(comma + 1);
    }
}

std::int64_t parseInteger(ValueE type, std::string_view text)
{
    switch (type) {
    case ValueE::eI8:
        return parseNumber(text, std::numeric_limits<std::int8_t>::min(), std::numeric_limits<std::int8_t>::max());
    case ValueE::eU16:
        return parseNumber(text, 0, std::numeric_limits<std::uint16_t>::max());
    case ValueE::eI32:
        return parseNumber(text, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max());
    case ValueE::eU32:
        return parseNumber(text, 0, std::numeric_limits<std::uint32_t>::max());
    default:
        return parseNumber(text, 0, std::numeric_limits<std::uint8_t>::max());
    }
}

bool parseBool(std::string_view text)
{
    const auto word = lower(text);
    for (const auto* yes : {"true", "yes", "on", "1"}) {
        if (word == yes) {
            return true;
        }
    }
    for (const auto* no : {"false", "no", "off", "0"}) {
        if (word == no) {
            return false;
        }
    }
    refuse(ValueE::eBool, text);
}

std::uint8_t parseDnsMode(std::string_view text)
{
    const auto word = lower(text);
    if (word == "given") {
        return 0;
    }
    if (word == "dhcp") {
        return 1;
    }
    if (word == "none") {
        return 2;
    }
    try {
        return static_cast<std::uint8_t>(parseInteger(ValueE::eU8, text));
    } catch (const ValueError&) {
        refuse(ValueE::eDnsMode, text);
    }
}

/// "-4" or "-4.00": the line has no room for the hundredths.
std::int16_t parseWhole(std::string_view text)
{
    const auto point = text.find('.');
    const auto fraction = point == std::string_view::npos ? std::string_view("00") : text.substr(point + 1);
    if (fraction.empty() || fraction.find_first_not_of('0') != std::string_view::npos) {
        refuse(ValueE::eHundredthsList, text);
    }
    return static_cast<std::int16_t>(parseNumber(text.substr(0, point), std::numeric_limits<std::int16_t>::min(),
                                                 std::numeric_limits<std::int16_t>::max()));
}

std::int64_t parseDate(std::string_view text)
{
    std::tm date{};
    std::string word(text);
    std::ranges::replace(word, 'T', ' ');
    if (word.ends_with('Z')) {
        word.pop_back();
    } else if (word.ends_with(" UTC")) {
        word.resize(word.size() - 4);
    }
    const char* end = nullptr;
    for (const auto* format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        date = {};
        end = strptime(word.c_str(), format, &date);
        if (end != nullptr && *end == '\0') {
            break;
        }
    }
    if (end == nullptr || *end != '\0') {
        refuse(ValueE::eTime, text);
    }
    using namespace std::chrono; // whose days do not end in 2038 on a 32-bit machine, as time_t does
    const year_month_day day{year(date.tm_year + 1900), month(static_cast<unsigned>(date.tm_mon) + 1),
                             std::chrono::day(static_cast<unsigned>(date.tm_mday))};
    if (!day.ok() || date.tm_sec > 59) { // the 31st of a shorter month, a leap second
        refuse(ValueE::eTime, text);
    }
    const auto time = sys_days(day) + hours(date.tm_hour) + minutes(date.tm_min) + seconds(date.tm_sec);
    return time.time_since_epoch().count();
}

std::int64_t parseSeconds(std::string_view text)
{
    if (lower(text) == "now") {
        return std::time(nullptr);
    }
    if (text.starts_with('@')) {
        return parseNumber(text.substr(1), std::numeric_limits<std::int64_t>::min(),
                           std::numeric_limits<std::int64_t>::max());
    }
    return parseDate(text);
}

/// What lies outside, the device would take for another time.
std::int64_t parseTime(std::string_view text)
{
    const auto seconds = parseSeconds(text);
    if (seconds < std::numeric_limits<std::int32_t>::min() || seconds > std::numeric_limits<std::int32_t>::max()) {
        throw ValueError("'" + std::string(text) +
                         "' will not do: the device knows times from 1901-12-13 20:45:52 to 2038-01-19 03:14:07 UTC");
    }
    return seconds;
}

Bytes parseHundredthsList(std::string_view text)
{
    Bytes bytes;
    for (const auto part : splitList(text)) {
        const auto two = littleEndian(static_cast<std::uint16_t>(parseWhole(part)), 2);
        bytes.insert(bytes.end(), two.begin(), two.end());
    }
    return bytes;
}

Bytes parseByteList(std::string_view text)
{
    const auto semicolon = text.find(';');
    if (semicolon == std::string_view::npos) {
        refuse(ValueE::eByteList, text);
    }
    auto parts = splitList(text.substr(0, semicolon));
    parts.push_back(trimmed(text.substr(semicolon + 1)));
    Bytes bytes;
    for (const auto part : parts) {
        bytes.push_back(static_cast<std::uint8_t>(parseInteger(ValueE::eU8, part)));
    }
    return bytes;
}

/// The elements with `separator` between them.
template <class Element>
std::string joined(ByteView bytes, std::size_t size, const char* separator, Element element)
{
    std::string text;
    for (; !bytes.empty(); bytes = bytes.subspan(size)) {
        text += (text.empty() ? "" : separator) + element(bytes.first(size));
    }
    return text;
}

/// The device keeps hundredths and sends their whole part: a stored 2350 comes as 23 and is 23.00 here.
std::string hundredthsText(ByteView bytes)
{
    return joined(bytes, 2, ",", [](ByteView two) { return std::to_string(fromLittleEndianSigned(two)) + ".00"; });
}

std::string bytesText(ByteView bytes)
{
    return joined(bytes, 1, ",", [](ByteView one) { return std::to_string(one[0]); });
}

/// "2024-05-06", `between`, "07:08:09", `after`
std::string dateText(ByteView bytes, const char* between, const char* after)
{
    const auto value = fromLittleEndianSigned(bytes);
    const auto seconds = static_cast<std::time_t>(value);
    std::tm date{};
    if (seconds != value || gmtime_r(&seconds, &date) == nullptr) {
        return "@" + std::to_string(value);
    }
    char text[128];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d%s%02d:%02d:%02d%s", date.tm_year + 1900, date.tm_mon + 1,
                  date.tm_mday, between, date.tm_hour, date.tm_min, date.tm_sec, after);
    return text;
}

std::string dnsModeText(std::uint8_t mode)
{
    switch (mode) {
    case 0:
        return "given";
    case 1:
        return "dhcp";
    case 2:
        return "none";
    default:
        return std::to_string(mode);
    }
}

std::string_view textIn(ByteView bytes)
{
    static_assert(sizeof(char) == sizeof(std::uint8_t));
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size() - 1};
}

std::string integerText(ValueE type, ByteView bytes)
{
    const bool isSigned = type == ValueE::eI8 || type == ValueE::eI32;
    return isSigned ? std::to_string(fromLittleEndianSigned(bytes)) : std::to_string(fromLittleEndian(bytes));
}

/// Length of the UTF-8 character at the front; 0 when there is none.
std::size_t utf8Length(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    const std::size_t length = first < 0x80                    ? 1
                               : first >= 0xC2 && first < 0xE0 ? 2
                               : first >= 0xE0 && first < 0xF0 ? 3
                               : first >= 0xF0 && first < 0xF5 ? 4
                                                               : 0;
    if (length > text.size()) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            return 0;
        }
    }
    const auto second = length > 1 ? static_cast<unsigned char>(text[1]) : 0;
    const bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool outside = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90);
    return overlong || outside ? 0 : length;
}

} // namespace

std::int64_t parseNumber(std::string_view text, std::int64_t min, std::int64_t max)
{
    const auto whole = text;
    const bool negative = text.starts_with('-');
    text.remove_prefix(negative || text.starts_with('+') ? 1 : 0);
    int base = 10;
    for (const auto& [prefix, its] : {std::pair{"0x", 16}, {"0o", 8}, {"0b", 2}}) {
        if (lower(text.substr(0, 2)) == prefix) {
            base = its;
            text.remove_prefix(2);
            break;
        }
    }
    std::uint64_t magnitude = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    const auto limit = negative ? std::uint64_t{0} - static_cast<std::uint64_t>(min) : static_cast<std::uint64_t>(max);
    if (text.empty() || end != text.data() + text.size() || error == std::errc::invalid_argument) {
        throw ValueError("'" + std::string(whole) + "' is no number (80, 0x50, 0o120 and 0b1010000 are)");
    }
    const bool tooLow = min > 0 && (negative || magnitude < static_cast<std::uint64_t>(min));
    if (error != std::errc() || (negative && min >= 0 && magnitude != 0) || magnitude > limit || tooLow) {
        throw ValueError(std::string(whole) + " is out of range: " + std::to_string(min) + " to " +
                         std::to_string(max));
    }
    return static_cast<std::int64_t>(negative ? std::uint64_t{0} - magnitude : magnitude);
}

Bytes parseValue(ValueE type, std::string_view text)
{
    switch (type) {
    case ValueE::eBool:
        return {static_cast<std::uint8_t>(parseBool(text) ? 1 : 0)};
    case ValueE::eDnsMode:
        return {parseDnsMode(text)};
    case ValueE::eTime:
        return littleEndian(static_cast<std::uint64_t>(parseTime(text)), typeOf(type).size);
    case ValueE::eHundredthsList:
        return parseHundredthsList(text);
    case ValueE::eByteList:
        return parseByteList(text);
    case ValueE::eText: {
        if (text.find('\0') != std::string_view::npos) {
            throw ValueError("a text cannot contain a zero byte");
        }
        Bytes bytes(text.begin(), text.end());
        bytes.push_back(0);
        return bytes;
    }
    default:
        return littleEndian(static_cast<std::uint64_t>(parseInteger(type, text)), typeOf(type).size);
    }
}

bool isValue(ValueE type, ByteView bytes)
{
    const auto size = typeOf(type).size;
    switch (type) {
    case ValueE::eText:
        return !bytes.empty() && bytes.back() == 0;
    case ValueE::eHundredthsList:
        return bytes.size() % 2 == 0;
    case ValueE::eByteList:
        return !bytes.empty();
    default:
        return bytes.size() == size;
    }
}

std::string formatValue(ValueE type, ByteView bytes)
{
    if (!isValue(type, bytes)) {
        return (bytes.empty() ? "nothing" : hexText(bytes)) + " (not a " + typeName(type) + ")";
    }
    switch (type) {
    case ValueE::eBool:
        return bytes[0] != 0 ? "true" : "false";
    case ValueE::eDnsMode:
        return dnsModeText(bytes[0]);
    case ValueE::eTime:
        return dateText(bytes, " ", " UTC");
    case ValueE::eHundredthsList:
        return hundredthsText(bytes);
    case ValueE::eByteList:
        return bytesText(bytes.first(bytes.size() - 1)) + ";" + std::to_string(bytes.back());
    case ValueE::eText:
        return escapedText(textIn(bytes));
    default:
        return integerText(type, bytes);
    }
}

std::string jsonValue(ValueE type, ByteView bytes)
{
    if (!isValue(type, bytes)) {
        return jsonString(formatValue(type, bytes));
    }
    switch (type) {
    case ValueE::eTime:
        return jsonString(dateText(bytes, "T", "Z"));
    case ValueE::eHundredthsList:
        return "[" + hundredthsText(bytes) + "]";
    case ValueE::eByteList:
        return R"({"list":[)" + bytesText(bytes.first(bytes.size() - 1)) + R"(],"last":)" +
               std::to_string(bytes.back()) + "}";
    case ValueE::eDnsMode:
        return jsonString(formatValue(type, bytes));
    case ValueE::eText:
        return jsonString(textIn(bytes));
    default:
        return formatValue(type, bytes);
    }
}

std::string escapedText(std::string_view text)
{
    std::string out;
    while (!text.empty()) {
        const auto length = utf8Length(text);
        const auto first = static_cast<unsigned char>(text[0]);
        const bool isC1 = length == 2 && first == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0;
        const auto taken = text.substr(0, std::max<std::size_t>(length, 1));
        if (first == '\\') {
            out += "\\\\";
        } else if (length == 0 || isC1 || first < 0x20 || first == 0x7F) {
            for (const auto c : taken) {
                char code[8];
                std::snprintf(code, sizeof code, "\\x%02X", static_cast<unsigned char>(c));
                out += code;
            }
        } else {
            out += taken;
        }
        text.remove_prefix(taken.size());
    }
    return out;
}

std::string jsonString(std::string_view text)
{
    std::string out = "\"";
    while (!text.empty()) {
        const auto length = utf8Length(text);
        const auto byte = static_cast<unsigned char>(text[0]);
        if (length == 0) {
            out += "\\ufffd";
        } else if (byte == '"' || byte == '\\') {
            out += {'\\', text[0]};
        } else if (byte < 0x20) {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", byte);
            out += code;
        } else {
            out += text.substr(0, length);
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return out + '"';
}

std::size_t valueSize(ValueE type, ByteView bytes)
{
    const auto size = typeOf(type).size;
    if (size != 0) {
        return size;
    }
    if (type != ValueE::eText) {
        return bytes.size();
    }
    return static_cast<std::size_t>(std::ranges::find(bytes, std::uint8_t{0}) - bytes.begin()) + 1;
}

const char* typeName(ValueE type)
{
    return typeOf(type).name;
}

const char* typeHint(ValueE type)
{
    return typeOf(type).hint;
}

std::string hexText(ByteView bytes)
{
    std::string text;
    for (const auto byte : bytes) {
        char code[4];
        std::snprintf(code, sizeof code, "%02X", byte);
        text += (text.empty() ? "" : " ") + std::string(code);
    }
    return text;
}

} // namespace qv
