#include "qv/Request.h"

#include "qv/Values.h"
#include "qv/Words.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
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

std::string lower(std::string_view text)
{
    std::string out(text);
    std::ranges::transform(out, out.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
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

const char* nameOf(const tField& field)
{
    return field.name;
}

/// The name that was meant, or null.
template <class Entry>
const char* nearest(std::span<const Entry> table, std::string_view name)
{
    const auto entry = std::ranges::find_if(table, [&](const Entry& e) { return isNear(nameOf(e), name); });
    return entry == table.end() ? nullptr : nameOf(*entry);
}

/// What else goes by this name; empty when nothing does.
std::string otherUse(std::string_view name, bool asMethod)
{
    std::string text;
    if (findReadRegister(name) != nullptr) {
        text = asMethod ? "it is a register: read " + std::string(name) : "it can only be read";
        const auto* setter = findMethod("set-" + std::string(name));
        text += setter != nullptr ? "; to set it: call " + std::string(setter->name) : "";
    } else if (findWriteRegister(name) != nullptr) {
        text = asMethod ? "it is a register: write " + std::string(name) + " VALUE" : "it can only be written";
    } else if (const auto* method = findMethod(name)) {
        text = "it is a method: " + usageOf(*method);
    }
    return text;
}

template <class Entry>
[[noreturn]] void refuseName(std::span<const Entry> table, std::string_view name, const std::string& what)
{
    auto help = otherUse(name, std::is_same_v<Entry, tMethod>);
    if (help.empty()) {
        const auto* near = nearest(table, name);
        help = near != nullptr ? "did you mean " + std::string(near) + "?" : "'list' shows all";
    }
    throw RequestError("there is no " + what + " '" + std::string(name) + "'; " + help);
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
    const auto first = name.find_first_not_of("+-");
    if (first == std::string_view::npos || std::isdigit(static_cast<unsigned char>(name[first])) == 0) {
        refuseName(table, name, what);
    }
    return {nullptr, static_cast<std::uint8_t>(parseNumber(name, 0, 255))};
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

std::string trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    return std::string(text.substr(first, text.find_last_not_of(" \t\r") - first + 1));
}

/// Whether it could be meant as the name of an argument.
bool looksLikeName(std::string_view text)
{
    return !text.empty() && std::isalpha(static_cast<unsigned char>(text[0])) != 0 &&
           std::ranges::all_of(text, [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_'; });
}

/// One value for each field, empty where none was given.
class Arguments
{
public:
    explicit Arguments(const tMethod& method)
        : mMethod(method)
        , mValues(method.args.size())
    {}

    /// The next argument by its place, or one by its name.
    void take(const std::string& argument)
    {
        const auto equals = argument.find('=');
        const auto name = argument.substr(0, equals);
        if (equals != std::string::npos && (findField(name) || (looksLikeName(name) && !mMethod.args.empty()))) {
            takeNamed(name, argument.substr(equals + 1), literalHint(argument));
        } else if (mNext == mValues.size()) {
            throw RequestError("'" + argument + "' is one argument too many: " + usageOf(mMethod));
        } else {
            set(mNext++, argument, false);
        }
    }
    void takeNamed(const std::string& name, const std::string& value, const std::string& hint = "")
    {
        set(fieldOf(name, hint), value, false);
    }
    /// The lines "name = value" of a file; empty lines and lines that begin with # are left out.
    void takeFile(const std::string& fileName)
    {
        unsigned number = 0;
        for (const auto& line : readLines(fileName)) {
            ++number;
            try {
                takeLine(trimmed(line));
            } catch (const std::invalid_argument& error) {
                throw RequestError(fileName + ":" + std::to_string(number) + ": " + error.what());
            }
        }
    }
    Bytes bytes() const
    {
        Bytes all;
        for (std::size_t i = 0; i < mValues.size(); ++i) {
            const auto& field = mMethod.args[i];
            const auto* value = mValues[i] ? mValues[i]->text.c_str() : defaultOf(mMethod, field);
            if (value == nullptr) {
                throw RequestError(std::string(field.name) + " is missing: " + usageOf(mMethod));
            }
            append(all, fieldBytes(field, value));
        }
        return all;
    }

private:
    struct tGiven
    {
        std::string text;
        bool fromFile;
    };

    std::optional<std::size_t> findField(std::string_view name) const
    {
        const auto field = std::ranges::find_if(mMethod.args, [&](const tField& f) { return name == f.name; });
        return field == mMethod.args.end() ? std::nullopt
                                           : std::optional(static_cast<std::size_t>(field - mMethod.args.begin()));
    }
    std::size_t fieldOf(const std::string& name, const std::string& hint) const
    {
        if (const auto field = findField(name)) {
            return *field;
        }
        const auto* near = nearest(mMethod.args, name);
        throw RequestError(std::string(mMethod.name) + " has no argument '" + name + "'" +
                           (near != nullptr ? "; did you mean " + std::string(near) + "?" : ": " + usageOf(mMethod)) +
                           hint);
    }
    /// How to give a text that looks like name=value.
    std::string literalHint(const std::string& argument) const
    {
        if (mNext == mValues.size() || mMethod.args[mNext].type != wire::ValueE::eText) {
            return "";
        }
        return " (A text that holds an equals sign goes as " + std::string(mMethod.args[mNext].name) + "=" + argument +
               ".)";
    }
    void takeLine(const std::string& line)
    {
        if (line.empty() || line.starts_with('#')) {
            return;
        }
        const auto equals = line.find('=');
        if (equals == std::string::npos) {
            throw RequestError("'name = value' is expected");
        }
        const auto field = fieldOf(trimmed(line.substr(0, equals)), "");
        const auto value = trimmed(line.substr(equals + 1));
        fieldBytes(mMethod.args[field], value); // a mistake is to be told with its line
        set(field, value, true);
    }
    void set(std::size_t field, const std::string& value, bool fromFile)
    {
        auto& given = mValues[field];
        if (given && given->fromFile == fromFile) {
            throw RequestError(std::string(mMethod.args[field].name) + " is given twice");
        }
        if (!given || !fromFile) {
            given = {value, fromFile};
        }
    }

    const tMethod& mMethod;
    std::vector<std::optional<tGiven>> mValues;
    std::size_t mNext = 0;
};

} // namespace

bool isNear(std::string_view name, std::string_view typed)
{
    const auto small = lower(typed);
    return distance(name, small) <= 2 || (small.size() > 1 && name.find(small) != std::string_view::npos);
}

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
    request.text = "write " + request.name + " " + quotedWord(std::string(value));
    append(request.message, reg != nullptr ? fieldBytes(reg->value, value) : rawBytes(value));
    return request;
}

tRequest callRequest(std::string_view name, std::span<const std::string> args)
{
    const auto [method, number] = resolve<tMethod>(wire::kMethods, name, "method called");
    tRequest request{{wire::eCmdCall, number}, "", textOf(method, number), number, false, {}};
    request.text = "call " + request.name;
    for (const auto& argument : args) {
        request.text += " " + quotedWord(argument);
    }
    if (method == nullptr) {
        for (const auto& argument : args) {
            append(request.message, rawBytes(argument));
        }
        return request;
    }
    Arguments arguments(*method);
    for (const auto& argument : args) {
        if (argument.starts_with('@') && number == wire::eMethodSetNetworkCfg) {
            arguments.takeFile(argument.substr(1));
        } else {
            arguments.take(argument);
        }
    }
    append(request.message, arguments.bytes());
    return request;
}

tRequest networkRequest(std::span<const std::string> args)
{
    const auto* method = findMethod("set-network-cfg");
    for (const auto& argument : args) {
        const auto equals = argument.find('=');
        if (argument.starts_with('@')) {
            continue;
        }
        if (equals == std::string::npos) {
            throw RequestError("'" + argument + "' is no name=value");
        }
        Arguments(*method).takeNamed(argument.substr(0, equals), "");
    }
    return callRequest(method->name, args);
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

std::vector<std::string> readLines(const std::string& fileName)
{
    errno = 0;
    std::ifstream file(fileName);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    if (!file.is_open() || file.bad()) {
        throw RequestError("cannot read " + fileName + (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
    }
    return lines;
}

} // namespace qv
