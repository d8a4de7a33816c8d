#pragma once

#include "protocol/Wire.h"
#include "qv/Bytes.h"

#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace qv {

/// There is no such register or method, or its arguments are wrong; the text says what there is.
class RequestError : public std::invalid_argument
{
public:
    using std::invalid_argument::invalid_argument;
};

/// A request message and what is needed to understand its reply.
struct tRequest
{
    Bytes message;
    std::string text; ///< "read brightness-raw", "call set-cfg-str Key 'a b'"
    std::string name; ///< "brightness-raw", or the number of something that is not in the table
    std::uint8_t number = 0;
    bool safeToRepeat = true;
    std::optional<wire::ValueE> replyType; ///< of a known register that is read
};

/// Registers and methods go by name ("brightness-raw"), enumerator ("eRegRdDispBrightnessRaw") or number in any base.
/// Numbers beyond the table are allowed too; their values and arguments are bytes with commas.
/// All of these throw RequestError or ValueError.
tRequest readRequest(std::string_view name);
tRequest writeRequest(std::string_view name, std::string_view value);
/// Arguments in the table's order, or as name=value in any order, each once. A word before an equals sign that names no
/// argument is refused. For set-network-cfg every argument may be left out, and "@FILE" takes name=value lines from a
/// file; what is given beside it wins.
tRequest callRequest(std::string_view name, std::span<const std::string> args);
/// set-network-cfg, its arguments by name or from a file only.
tRequest networkRequest(std::span<const std::string> args);

const wire::tRegister* findReadRegister(std::string_view name);
const wire::tRegister* findWriteRegister(std::string_view name);
const wire::tMethod* findMethod(std::string_view name);

/// Whether `name` may have been meant by what was typed: a part of it, or two letters wrong at most.
bool isNear(std::string_view name, std::string_view typed);

/// What the method's argument is when it is not given; null when it must be given.
const char* defaultOf(const wire::tMethod& method, const wire::tField& field);

/// "call set-cfg-long key value", with what may be left out in brackets.
std::string usageOf(const wire::tMethod& method);

/// The lines of a file. Throws RequestError when it cannot be read.
std::vector<std::string> readLines(const std::string& fileName);

} // namespace qv
