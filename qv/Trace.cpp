#include "qv/Trace.h"

#include "protocol/Wire.h"
#include "qv/Values.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace qv {

namespace {

constexpr std::size_t kBytesShown = 48;

const char* kindText(TraceE kind)
{
    switch (kind) {
    case TraceE::eRequest:
        return "request";
    case TraceE::eRepeat:
        return "repeat";
    case TraceE::eSync:
        return "get in step";
    case TraceE::eRaw:
        return "frame";
    case TraceE::eReply:
        return "reply";
    case TraceE::eRefusal:
        return "reply, refused";
    case TraceE::eReset:
        return "RESET frame: the daemon is out of step";
    case TraceE::eStale:
        return "an earlier reply again";
    case TraceE::eEcho:
        return "ECHO of what was sent";
    case TraceE::eBroken:
        return "BROKEN frame";
    case TraceE::eNoFrame:
        return "bytes without the end of a frame";
    case TraceE::eTimeout:
        return "nothing (more)";
    }
    return "";
}

const char* commandText(std::uint8_t command)
{
    switch (command & wire::kCommandMask) {
    case wire::eCmdReadReg:
        return "read register";
    case wire::eCmdWriteReg:
        return "write register";
    case wire::eCmdCall:
        return "call method";
    default:
        return "unknown command";
    }
}

std::string shortened(ByteView bytes)
{
    return bytes.size() <= kBytesShown ? hexText(bytes) : hexText(bytes.first(kBytesShown)) + " ...";
}

/// What a person may know again: a login, a boot loader, the kernel.
std::string printable(ByteView bytes)
{
    std::string text;
    for (const auto byte : bytes.first(std::min(bytes.size(), kBytesShown))) {
        text += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
    }
    return text;
}

std::string faultText(const tParsedFrame& frame)
{
    switch (frame.fault) {
    case FrameFaultE::eBadCobs:
        return "the byte stuffing does not add up";
    case FrameFaultE::eTooShort:
        return "too short for a frame";
    case FrameFaultE::eBadCrc:
        return "WRONG, computed " + hexText(Bytes{static_cast<std::uint8_t>(frame.crcComputed >> 8),
                                                  static_cast<std::uint8_t>(frame.crcComputed & 0xFF)});
    case FrameFaultE::eNone:
        return "right";
    }
    return "";
}

struct tPart
{
    std::size_t offset;
    Bytes bytes;
    std::string name;
    std::string value;
};

/// The values that follow in `rest`, which starts at `offset`; what is left over comes last, without a name.
std::vector<tPart> cutValues(std::span<const wire::tField> fields, ByteView rest, std::size_t offset)
{
    std::vector<tPart> parts;
    for (const auto& field : fields) {
        const auto size = std::min(valueSize(field.type, rest), rest.size());
        const auto bytes = rest.first(size);
        parts.push_back({offset, Bytes(bytes.begin(), bytes.end()), field.name, formatValue(field.type, bytes)});
        rest = rest.subspan(size);
        offset += size;
    }
    if (!rest.empty()) {
        parts.push_back({offset, Bytes(rest.begin(), rest.end()), "", ""});
    }
    return parts;
}

template <class Entry>
const Entry* byNumber(std::span<const Entry> table, std::uint8_t Entry::*member, std::uint8_t number)
{
    const auto entry = std::ranges::find(table, number, member);
    return entry == table.end() ? nullptr : &*entry;
}

struct tMessage
{
    std::string name; ///< of the register or method, or its number
    std::vector<tPart> parts;
};

tMessage cutRequest(ByteView message)
{
    const auto number = message[1];
    const auto rest = message.subspan(2);
    if ((message[0] & wire::kCommandMask) == wire::eCmdCall) {
        const auto* method = byNumber<wire::tMethod>(wire::kMethods, &wire::tMethod::id, number);
        const auto args = method != nullptr ? method->args : std::span<const wire::tField>();
        return {method != nullptr ? method->name : std::to_string(number), cutValues(args, rest, 2)};
    }
    if ((message[0] & wire::kCommandMask) > wire::eCmdCall) {
        return {std::to_string(number), cutValues({}, rest, 2)};
    }
    const bool read = (message[0] & wire::kCommandMask) == wire::eCmdReadReg;
    const auto table = read ? std::span<const wire::tRegister>(wire::kReadRegisters) : wire::kWriteRegisters;
    const auto* reg = byNumber<wire::tRegister>(table, &wire::tRegister::address, number);
    std::span<const wire::tField> fields;
    if (reg != nullptr && !read) {
        fields = {&reg->value, 1};
    }
    return {reg != nullptr ? reg->value.name : std::to_string(number), cutValues(fields, rest, 2)};
}

} // namespace

FrameTrace::FrameTrace(std::ostream& out)
    : mOut(out)
{}

void FrameTrace::operator()(const tTraceEvent& event)
{
    char text[64];
    const std::chrono::duration<double, std::milli> since = Clock::now() - mStart;
    std::snprintf(text, sizeof text, "%10.3f ms  %s  ", since.count(), event.sent ? "-->" : "<--");
    mOut << text << kindText(event.kind);
    if (event.sent && event.attempt > 1) {
        mOut << " (sending " << event.attempt << ")";
    }
    if (event.kind == TraceE::eNoFrame) {
        mOut << " (" << event.wire.size() << "): " << shortened(event.wire) << "  \"" << printable(event.wire)
             << "\"\n";
        mOut.flush();
        return;
    }
    if (!event.wire.empty()) {
        mOut << ": " << shortened(event.wire);
    }
    mOut << '\n';
    if (event.sent && event.frame.ok()) {
        mRequest = event.frame.payload;
    }
    if (!event.wire.empty()) {
        writeFields(event.frame, event.sent);
    }
    mOut.flush();
}

void FrameTrace::writeField(std::size_t offset, ByteView bytes, const std::string& meaning)
{
    char text[32];
    std::snprintf(text, sizeof text, "%20zu  ", offset);
    auto shown = shortened(bytes);
    shown.resize(std::max<std::size_t>(shown.size(), 11), ' ');
    mOut << text << shown << "  " << meaning << '\n';
}

void FrameTrace::writeFields(const tParsedFrame& frame, bool sent)
{
    if (frame.bytes.empty() || frame.fault == FrameFaultE::eTooShort) {
        writeField(0, frame.bytes, faultText(frame));
        return;
    }
    const std::string flag = frame.hasResetFlag() ? ", reset flag" : "";
    writeField(0, Bytes{frame.header}, "number " + std::to_string(frame.number()) + flag);
    if (sent) {
        writeRequest(frame.payload);
    } else if (frame.isResetFrame()) {
        writeField(1, frame.payload, "nothing else: a reset frame");
    } else {
        writeReply(frame.payload);
    }
    const ByteView bytes(frame.bytes);
    writeField(bytes.size() - 2, bytes.last(2), "CRC, " + faultText(frame));
}

void FrameTrace::writeRequest(ByteView payload)
{
    writeField(1, payload.first(1), commandText(payload[0]));
    if (payload.size() < 2) {
        return;
    }
    const auto message = cutRequest(payload);
    writeField(2, payload.subspan(1, 1), message.name);
    for (const auto& part : message.parts) {
        writeField(1 + part.offset, part.bytes, part.name.empty() ? "(more)" : part.name + " " + part.value);
    }
}

void FrameTrace::writeReply(ByteView payload)
{
    const bool refused = (payload[0] & wire::kErrorBit) != 0;
    writeField(1, payload.first(1), std::string("answers ") + commandText(payload[0]) + (refused ? ", ERROR BIT" : ""));
    const auto rest = payload.subspan(1);
    if (rest.empty()) {
        return;
    }
    const wire::tRegister* reg = nullptr;
    if (mRequest.size() >= 2 && (mRequest[0] & wire::kCommandMask) == wire::eCmdReadReg) {
        reg = byNumber<wire::tRegister>(wire::kReadRegisters, &wire::tRegister::address, mRequest[1]);
    }
    writeField(2, rest,
               reg != nullptr ? std::string(reg->value.name) + " " + formatValue(reg->value.type, rest) : "data");
}

std::string describeRequest(ByteView message)
{
    if (message.size() < 2) {
        return hexText(message);
    }
    const auto command = message[0] & wire::kCommandMask;
    const auto cut = cutRequest(message);
    std::string text = command == wire::eCmdReadReg    ? "read "
                       : command == wire::eCmdWriteReg ? "write "
                       : command == wire::eCmdCall     ? "call "
                                                       : "command " + std::to_string(command) + " ";
    text += cut.name;
    for (const auto& part : cut.parts) {
        if (part.name.empty()) {
            text += " + " + hexText(part.bytes);
        } else {
            text += command == wire::eCmdCall ? " " + part.name + "=" + part.value : " " + part.value;
        }
    }
    return text;
}

} // namespace qv
