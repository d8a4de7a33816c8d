#include "sim/MessageText.h"

#include <array>
#include <cinttypes>
#include <cstdio>

namespace sim {

namespace {

std::string basicText(sd_bus_message* message, char type)
{
    union {
        std::uint8_t u8;
        std::int16_t i16;
        std::uint16_t u16;
        std::int32_t i32;
        std::uint32_t u32;
        std::int64_t i64;
        std::uint64_t u64;
        double real;
        int boolean;
        const char* text;
    } value = {};
    if (sd_bus_message_read_basic(message, type, &value) <= 0)
        return "?";
    switch (type) {
    case 'y':
        return std::to_string(value.u8);
    case 'b':
        return value.boolean != 0 ? "true" : "false";
    case 'n':
        return std::to_string(value.i16);
    case 'q':
        return std::to_string(value.u16);
    case 'i':
        return std::to_string(value.i32);
    case 'u':
        return std::to_string(value.u32);
    case 'x':
        return std::to_string(value.i64);
    case 't':
        return std::to_string(value.u64);
    case 'd':
        return std::to_string(value.real);
    case 's':
    case 'o':
    case 'g':
        return quoted(value.text);
    default:
        return "?";
    }
}

std::string sequenceText(sd_bus_message* message, const char* between)
{
    std::string out;
    while (sd_bus_message_at_end(message, 0) == 0) {
        if (!out.empty())
            out += between;
        out += valueText(message);
    }
    return out;
}

std::string containerText(sd_bus_message* message, char type, const char* contents)
{
    if (sd_bus_message_enter_container(message, type, contents) <= 0) {
        sd_bus_message_skip(message, nullptr);
        return "?";
    }
    std::string inner = sequenceText(message, type == 'e' ? ": " : ", ");
    sd_bus_message_exit_container(message);
    switch (type) {
    case 'a':
        return contents[0] == '{' ? "{" + inner + "}" : "[" + inner + "]";
    case 'r':
        return "(" + inner + ")";
    default:
        return inner;
    }
}

/// How many bytes of a well-formed UTF-8 character of more than one byte begin the text; 0 when none.
std::size_t utf8Length(const char* text)
{
    const auto first = static_cast<unsigned char>(*text);
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC2 ? 2 : 0;
    if (first > 0xF4)
        return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80)
            return 0;
    return length;
}

} // namespace

std::string quoted(const std::string& text)
{
    std::string out = "\"";
    for (std::size_t i = 0; i < text.size();) {
        const char c = text[i];
        if (const std::size_t length = utf8Length(text.c_str() + i); length > 0) {
            out.append(text, i, length);
            i += length;
            continue;
        }
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c >= 0x20 && c < 0x7F) {
            out += c;
        } else {
            std::array<char, 8> code{};
            std::snprintf(code.data(), code.size(), "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
            out += code.data();
        }
        ++i;
    }
    return out + '"';
}

std::string valueText(sd_bus_message* message)
{
    char type = 0;
    const char* contents = nullptr;
    if (sd_bus_message_peek_type(message, &type, &contents) <= 0)
        return "?";
    if (type == 'a' || type == 'v' || type == 'r' || type == 'e')
        return containerText(message, type, contents);
    return basicText(message, type);
}

std::string bodyText(sd_bus_message* message)
{
    sd_bus_message_rewind(message, 1);
    std::string out = sequenceText(message, ", ");
    sd_bus_message_rewind(message, 1);
    return out;
}

} // namespace sim
