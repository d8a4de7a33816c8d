#include "qv/Request.h"

#include "qv/Values.h"

#include <algorithm>
#include <fstream>
#include <numeric>

namespace qv {

namespace {

using wire::tField;
using wire::tMethod;
using wire::tRegister;

struct tDefault
{
    const char* field;
    const char* value;
};

/// A display at a DHCP server that also names the DNS servers.
constexpr tDefault kNetworkDefaults[] = {
    {"interface", "eth0"}, {"mode", "DhcpClient"}, {"ip-address", ""},   {"netmask", ""},
    {"gateway", ""},       {"hostname", ""},       {"dns-domain", ""},   {"dns-mode", "dhcp"},
    {"dns-server-0", ""},  {"dns-server-1", ""},   {"dns-server-2", ""},
};

const char* nameOf(const tRegister& reg)
{
    return reg.value.name;
}
const char* nameOf(const tMethod& method)
{
    return method.name;
}
const char* enumeratorOf(const tRegister& reg)
{
    return reg.enumerator;
}
const char* enumeratorOf(const tMethod&)
{
    return "";
}
std::uint8_t numberOf(const tRegister& reg)
{
    return reg.address;
}
std::uint8_t numberOf(const tMethod& method)
{
    return method.id;
}

std::optional<std::uint8_t> asNumber(std::string_view text)
{
    try {
        return static_cast<std::uint8_t>(parseNumber(text, 0, 255));
    } catch (const ValueError&) {
        return std::nullopt;
    }
}

template <class Entry>
const Entry* find(std::span<const Entry> table, std::string_view name)
{
    const auto number = asNumber(name);
    const auto entry = std::ranges::find_if(table, [&](const Entry& e) {
        return name == nameOf(e) || (!name.empty() && name == enumeratorOf(e)) || number == numberOf(e);
    });
    return entry == table.end() ? nullptr : &*entry;
}

/// Number of letters to change, add or leave out.
std::size_t distance(std::string_view a, std::string_view b)
{
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        auto diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t k = 0; k < b.size(); ++k) {
            const auto replaced = diagonal + (a[i] == b[k] ? 0U : 1U);
            diagonal = row[k + 1];
            row[k + 1] = std::min({replaced, row[k] + 1, diagonal + 1});
        }
    }
    return row[b.size()];
}

template <class Entry>
[[noreturn]] void refuseName(std::span<const Entry> table, std::string_view name, const std::string& what)
{
    std::string text = "there is no " + what + " '" + std::string(name) + "'";
    const Entry* best = nullptr;
    for (const auto& entry : table) {
        const std::string_view candidate = nameOf(entry);
        const bool near =
            distance(candidate, name) <= 2 || (name.size() > 2 && candidate.find(name) != std::string_view::npos);
        if (near && best == nullptr) {
            best = &entry;
        }
    }
    text += best != nullptr ? "; did you mean " + std::string(nameOf(*best)) + "?" : "; 'list' shows all";
    throw RequestError(text);
}

/// The table's entry, or the number alone when it is beyond the table. Throws for a name that is in neither.
template <class Entry>
std::pair<const Entry*, std::uint8_t> resolve(std::span<const Entry> table, std::string_view name,
                                              const std::string& what)
{
    const auto* entry = find(table, name);
    if (entry != nullptr) {
        return {entry, numberOf(*entry)};
    }
    const auto number = asNumber(name);
    if (!number) {
        refuseName(table, name, what);
    }
    return {nullptr, *number};
}

template <class Entry>
std::string textOf(const Entry* entry, std::uint8_t number)
{
    return entry != nullptr ? nameOf(*entry) : std::to_string(number);
}

void append(Bytes& message, const Bytes& bytes)
{
    message.insert(message.end(), bytes.begin(), bytes.end());
}

Bytes rawBytes(std::string_view text)
{
    Bytes bytes;
    for (;;) {
        const auto comma = text.find(',');
        bytes.push_back(static_cast<std::uint8_t>(parseNumber(text.substr(0, comma), 0, 255)));
        if (comma == std::string_view::npos) {
            return bytes;
        }
        text.remove_prefix(comma + 1);
    }
}

Bytes fieldBytes(const tField& field, std::string_view value)
{
    try {
        return parseValue(field.type, value);
    } catch (const ValueError& error) {
        throw ValueError(std::string(field.name) + ": " + error.what());
    }
}

/// One value for each field, empty where none was given.
class Arguments
{
public:
    explicit Arguments(const tMethod& method)
        : mMethod(method)
        , mValues(method.args.size())
    {}

    void take(const std::string& argument, bool fromFile)
    {
        if (argument.starts_with('@') && !fromFile && mMethod.id == wire::eMethodSetNetworkCfg) {
            for (const auto& line : readAssignments(argument.substr(1))) {
                take(line, true);
            }
        } else if (!takeAssignment(argument)) {
            if (fromFile) {
                throw RequestError("'" + argument + "' names no argument of " + mMethod.name);
            }
            takeNext(argument);
        }
    }
    Bytes bytes() const
    {
        Bytes all;
        for (std::size_t i = 0; i < mValues.size(); ++i) {
            const auto& field = mMethod.args[i];
            const auto* value = mValues[i] ? mValues[i]->c_str() : defaultOf(mMethod, field);
            if (value == nullptr) {
                throw RequestError(std::string(field.name) + " is missing: " + usageOf(mMethod));
            }
            append(all, fieldBytes(field, value));
        }
        return all;
    }

private:
    bool takeAssignment(const std::string& argument)
    {
        const auto equals = argument.find('=');
        const auto name = argument.substr(0, equals);
        const auto field = std::ranges::find_if(mMethod.args, [&](const tField& f) { return name == f.name; });
        if (equals == std::string::npos || field == mMethod.args.end()) {
            return false;
        }
        mValues[static_cast<std::size_t>(field - mMethod.args.begin())] = argument.substr(equals + 1);
        return true;
    }
    void takeNext(const std::string& argument)
    {
        if (mNext == mValues.size()) {
            throw RequestError("'" + argument + "' is one argument too many: " + usageOf(mMethod));
        }
        mValues[mNext++] = argument;
    }

    const tMethod& mMethod;
    std::vector<std::optional<std::string>> mValues;
    std::size_t mNext = 0;
};

std::string trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    return std::string(text.substr(first, text.find_last_not_of(" \t\r") - first + 1));
}

} // namespace

const tRegister* findReadRegister(std::string_view name)
{
    return find<tRegister>(wire::kReadRegisters, name);
}

const tRegister* findWriteRegister(std::string_view name)
{
    return find<tRegister>(wire::kWriteRegisters, name);
}

const tMethod* findMethod(std::string_view name)
{
    return find<tMethod>(wire::kMethods, name);
}

tRequest readRequest(std::string_view name)
{
    const auto [reg, number] = resolve<tRegister>(wire::kReadRegisters, name, "register to read called");
    tRequest request{{wire::eCmdReadReg, number}, "", textOf(reg, number), number, true, {}};
    request.text = "read " + request.name;
    if (reg != nullptr) {
        request.replyType = reg->value.type;
    }
    return request;
}

tRequest writeRequest(std::string_view name, std::string_view value)
{
    const auto [reg, number] = resolve<tRegister>(wire::kWriteRegisters, name, "register to write called");
    tRequest request{{wire::eCmdWriteReg, number}, "", textOf(reg, number), number, true, {}};
    request.text = "write " + request.name + " " + std::string(value);
    append(request.message, reg != nullptr ? fieldBytes(reg->value, value) : rawBytes(value));
    return request;
}

tRequest callRequest(std::string_view name, std::span<const std::string> args)
{
    const auto [method, number] = resolve<tMethod>(wire::kMethods, name, "method called");
    tRequest request{{wire::eCmdCall, number}, "", textOf(method, number), number, false, {}};
    request.text = "call " + request.name;
    if (method == nullptr) {
        for (const auto& argument : args) {
            append(request.message, rawBytes(argument));
        }
        return request;
    }
    Arguments arguments(*method);
    for (const auto& argument : args) {
        arguments.take(argument, false);
    }
    append(request.message, arguments.bytes());
    return request;
}

const char* defaultOf(const tMethod& method, const tField& field)
{
    if (method.id != wire::eMethodSetNetworkCfg) {
        return nullptr;
    }
    for (const auto& [name, value] : kNetworkDefaults) {
        if (std::string_view(name) == field.name) {
            return value;
        }
    }
    return nullptr;
}

std::string usageOf(const tMethod& method)
{
    std::string text = std::string("call ") + method.name;
    for (const auto& field : method.args) {
        const bool optional = defaultOf(method, field) != nullptr;
        text += std::string(optional ? " [" : " ") + field.name + (optional ? "]" : "");
    }
    return text;
}

std::vector<std::string> readAssignments(const std::string& fileName)
{
    std::ifstream file(fileName);
    if (!file) {
        throw RequestError("cannot read " + fileName);
    }
    std::vector<std::string> assignments;
    unsigned number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        line = trimmed(line);
        if (line.empty() || line.starts_with('#')) {
            continue;
        }
        const auto equals = line.find('=');
        if (equals == std::string::npos) {
            throw RequestError(fileName + ":" + std::to_string(number) + ": 'name = value' is expected");
        }
        assignments.push_back(trimmed(line.substr(0, equals)) + "=" + trimmed(line.substr(equals + 1)));
    }
    return assignments;
}

} // namespace qv
