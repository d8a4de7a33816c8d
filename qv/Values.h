#pragma once

#include "protocol/Wire.h"
#include "qv/Bytes.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace qv {

/// What a person typed is no such value; the text says what would be.
class ValueError : public std::invalid_argument
{
public:
    using std::invalid_argument::invalid_argument;
};

/// The value's bytes as they lie in a message. Throws ValueError.
///
/// Numbers in any base (80, 0x50, 0o120, 0b1010000); booleans as true, yes, on, 1 and their opposites; lists with
/// commas, hundredths as decimals (1.50,-0.07), the byte list's trailing byte after a semicolon (1,2,3;9); times as UTC
/// dates (2024-05-06 07:08:09), seconds (@1714979289) or now, within the device's 32 bits; DNS modes as given, dhcp,
/// none or a number.
Bytes parseValue(wire::ValueE type, std::string_view text);

/// The bytes of a message as parseValue would take them, texts as escapedText gives them. Bytes that are no such value
/// are shown in hexadecimal with a remark.
std::string formatValue(wire::ValueE type, ByteView bytes);

/// The same as JSON: true, 80, "text", [23.00,-4.00], {"list":[1,2,3],"last":9}, "2024-05-06T07:08:09Z".
std::string jsonValue(wire::ValueE type, ByteView bytes);

/// The text in one line that does nothing to a terminal: control characters and bytes that are not UTF-8 as \xNN, a
/// backslash as two.
std::string escapedText(std::string_view text);

/// A JSON string with its quotation marks. Bytes that are not UTF-8 become U+FFFD.
std::string jsonString(std::string_view text);

/// The integer in any base. Throws ValueError when it is none or out of range.
std::int64_t parseNumber(std::string_view text, std::int64_t min, std::int64_t max);

/// Whether the bytes are such a value.
bool isValue(wire::ValueE type, ByteView bytes);

/// How many bytes of `bytes` the value takes, at its front; all of them for lists. Nothing fits: more than there are.
std::size_t valueSize(wire::ValueE type, ByteView bytes);

/// "u8", "text", "hundredths list"
const char* typeName(wire::ValueE type);
/// What to type for such a value, with an example.
const char* typeHint(wire::ValueE type);

/// "02 09 FF"
std::string hexText(ByteView bytes);

} // namespace qv
