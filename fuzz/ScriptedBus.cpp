#include "fuzz/ScriptedBus.h"

#include "dbus/Handles.h"
#include "fuzz/Check.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>
#include <string_view>

namespace {

enum AnswerE : std::uint8_t
{
    eValue = 1,
    eOtherType = 2,
    eError = 3,
    eNotSent = 4,
    eInterrupted = 5
};
constexpr unsigned int kAnswers = 8; ///< those without a name are the usual one

constexpr char kUsualText[] = "http://localhost";

/// The members that may be called, their arguments and the value of their answer ('\0': none).
struct tMember
{
    std::string_view name;
    std::string_view arguments;
    char answer;
};
constexpr tMember kMembers[] = {
    {"AddCfgVar", "s", 0},
    {"Beep", "", 0},
    {"BeepParam", "uu", 0},
    {"ConfigureNetIf", "sa{sv}", 0},
    {"ConfigureNetwork", "", 0},
    {"EmulateInputEvent", "", 0},
    {"Exit", "", 0},
    {"GetCfgBool", "s", 'b'},
    {"GetCfgInt", "s", 'i'},
    {"GetCfgString", "s", 's'},
    {"GetNetIPv4Addr", "", 's'},
    {"GetParamBool", "u", 'b'},
    {"GetParamInt", "u", 'i'},
    {"GetParamString", "u", 's'},
    {"LoadConfig", "", 0},
    {"SaveConfig", "", 0},
    {"SetBrightness", "u", 0},
    {"SetBrightnessRaw", "u", 0},
    {"SetCfgInt", "si", 0},
    {"SetCfgString", "ss", 0},
    {"SetParamBool", "ub", 0},
    {"SetParamInt", "ui", 0},
    {"SetParamString", "us", 0},
    {"SetTimeZone", "ub", 0},
    {"SetUnixTime", "t", 0},
    {"Start", "", 0},
    {"StartUnit", "ss", 'o'},
    {"SysUpdate", "", 0},
};

/// The part of the input that the buses have.
class Script
{
public:
    void start(std::span<const std::uint8_t> bytes) { mLeft = bytes; }

    std::uint8_t byte()
    {
        if (mLeft.empty())
            return 0;
        const std::uint8_t first = mLeft[0];
        mLeft = mLeft.subspan(1);
        return first;
    }

    unsigned int answer() { return byte() % kAnswers; }

    int number()
    {
        std::uint32_t value = 0;
        for (unsigned int shift = 0; shift < 32; shift += 8)
            value |= std::uint32_t{byte()} << shift;
        return static_cast<int>(value);
    }

    std::string text()
    {
        const auto count = std::min<std::size_t>(byte(), mLeft.size());
        std::string value(mLeft.begin(), mLeft.begin() + static_cast<std::ptrdiff_t>(count));
        mLeft = mLeft.subspan(count);
        return value;
    }

    int failure(sd_bus_error* error)
    {
        static constexpr int kErrors[] = {EIO, ETIMEDOUT, ECONNRESET, ENOTCONN, EACCES, ENOBUFS, ENOMEM, EHOSTUNREACH};
        return sd_bus_error_set_errno(error, -kErrors[byte() % std::size(kErrors)]);
    }

private:
    std::span<const std::uint8_t> mLeft;
};

Script sScript;
std::uint64_t sCookie = 0;
MessagePtr sLateAnswer;                      ///< to a call that was interrupted while it waited
unsigned int sStrays = 0;                    ///< messages that come before it
sd_bus_message_handler_t sHandler = nullptr; ///< of the match that was added last
void* sHandled = nullptr;

/// Ends a message as if it had come over a bus.
void received(sd_bus_message* message, std::uint64_t cookie)
{
    check(sd_bus_message_seal(message, cookie, 0) >= 0 && sd_bus_message_rewind(message, 1) >= 0,
          "a message of the script is whole");
}

void appendValue(sd_bus_message* answer, char type, bool usual)
{
    if (type == 's') {
        if (usual || sd_bus_message_append(answer, "s", sScript.text().c_str()) < 0) // no UTF-8
            sd_bus_message_append(answer, "s", kUsualText);
    } else if (type == 'o') {
        sd_bus_message_append(answer, "o", "/job/1");
    } else if (type == 'b') {
        sd_bus_message_append(answer, "b", usual ? 1 : sScript.byte() & 1);
    } else if (type == 'i') {
        sd_bus_message_append(answer, "i", usual ? 1 : sScript.number());
    }
}

void appendOtherType(sd_bus_message* answer)
{
    switch (sScript.byte() % 8U) {
    case 1:
        sd_bus_message_append(answer, "s", kUsualText);
        break;
    case 2:
        sd_bus_message_append(answer, "u", 7U);
        break;
    case 3:
        sd_bus_message_append(answer, "b", 1);
        break;
    case 4:
        sd_bus_message_append(answer, "d", 0.5);
        break;
    case 5:
        sd_bus_message_append(answer, "v", "i", 7);
        break;
    case 6:
        sd_bus_message_append(answer, "as", 2, "a", "b");
        break;
    case 7:
        sd_bus_message_append(answer, "(si)", "a", 7);
        break;
    default:
        break; // nothing at all
    }
}

void append(sd_bus_message* answer, char type, unsigned int kind)
{
    if (kind == eOtherType)
        appendOtherType(answer);
    else
        appendValue(answer, type, kind != eValue);
}

const tMember& memberOf(sd_bus_message* call)
{
    const std::string_view name = sd_bus_message_get_member(call);
    const auto* const member = std::ranges::find(kMembers, name, &tMember::name);
    check(member != std::end(kMembers), "only members that there are are called");
    check(sd_bus_message_get_signature(call, 1) == member->arguments, "a call has its member's arguments");
    return *member;
}

MessagePtr answerTo(sd_bus_message* call, char type, unsigned int kind)
{
    MessagePtr answer;
    check(adopt(answer, [&](sd_bus_message** m) { return sd_bus_message_new_method_return(call, m); }) >= 0,
          "a call can be answered");
    append(answer.get(), type, kind);
    received(answer.get(), ++sCookie);
    return answer;
}

MessagePtr errorTo(sd_bus_message* call)
{
    MessagePtr answer;
    check(adopt(answer, [&](sd_bus_message** m) { return sd_bus_message_new_method_errnof(call, m, EIO, "no"); }) >= 0,
          "a call can be refused");
    received(answer.get(), ++sCookie);
    return answer;
}

MessagePtr newSignal(sd_bus* bus, const char* member, char type, unsigned int kind)
{
    MessagePtr signal;
    check(adopt(signal,
                [&](sd_bus_message** m) {
                    return sd_bus_message_new_signal(bus, m, "/com/kelvora/logohandler", "com.kelvora.logohandler",
                                                     member);
                }) >= 0,
          "a signal can be made");
    append(signal.get(), type, kind);
    received(signal.get(), ++sCookie);
    return signal;
}

/// A connection whose other end is closed already. The library writes its greeting and then, since no call gets to the
/// socket, nothing.
int open(sd_bus** out)
{
    if (sScript.answer() == eError)
        return sScript.failure(nullptr);
    int ends[2];
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0, "there are sockets");
    const UniqueFd other(ends[1]);
    check(sd_bus_new(out) >= 0 && sd_bus_set_fd(*out, ends[0], ends[0]) >= 0 && sd_bus_start(*out) >= 0,
          "a connection can be made");
    return 0;
}

} // namespace

void scriptBus(std::span<const std::uint8_t> script)
{
    sScript.start(script);
    sCookie = 0;
    sLateAnswer.reset();
    sStrays = 0;
    sHandler = nullptr;
}

// The program's own functions stand before those of the library.
extern "C" {

int sd_bus_open_system(sd_bus** bus)
{
    return open(bus);
}

int sd_bus_open_user(sd_bus** bus)
{
    return open(bus);
}

int sd_bus_call(sd_bus*, sd_bus_message* call, std::uint64_t, sd_bus_error* error, sd_bus_message** reply)
{
    const tMember& member = memberOf(call);
    const unsigned int kind = sScript.answer();
    if (kind == eNotSent)
        return -EINTR;
    check(sd_bus_message_seal(call, ++sCookie, 0) >= 0, "only whole messages are sent");
    if (kind == eError)
        return sScript.failure(error);
    if (kind == eInterrupted) {
        const std::uint8_t how = sScript.byte();
        sStrays = how % 4U;
        sLateAnswer = how % 8U < 4 ? answerTo(call, member.answer, kAnswers) : errorTo(call);
        return -EINTR;
    }
    MessagePtr answer = answerTo(call, member.answer, kind);
    if (reply != nullptr)
        *reply = answer.release();
    return 1;
}

int sd_bus_call_method(sd_bus* bus, const char* destination, const char* path, const char* interface,
                       const char* member, sd_bus_error* error, sd_bus_message** reply, const char* types, ...)
{
    MessagePtr call;
    int result = adopt(call, [&](sd_bus_message** m) {
        return sd_bus_message_new_method_call(bus, m, destination, path, interface, member);
    });
    if (result >= 0 && types != nullptr && *types != '\0') {
        va_list arguments;
        va_start(arguments, types);
        result = sd_bus_message_appendv(call.get(), types, arguments);
        va_end(arguments);
    }
    return result < 0 ? result : sd_bus_call(bus, call.get(), 0, error, reply);
}

int sd_bus_add_match(sd_bus*, sd_bus_slot**, const char*, sd_bus_message_handler_t handler, void* handled)
{
    if (sScript.answer() == eError)
        return sScript.failure(nullptr);
    sHandler = handler;
    sHandled = handled;
    return 0;
}

int sd_bus_process(sd_bus* bus, sd_bus_message** message)
{
    if (sLateAnswer) {
        check(message != nullptr, "whoever waits for an answer wants to see it");
        if (sStrays == 0)
            *message = sLateAnswer.release();
        else if (--sStrays != 0)
            *message = newSignal(bus, "Stray", 's', eValue).release();
        else
            return 0; // once more to be waited for
        return 1;
    }
    const unsigned int kind = sScript.answer();
    if (kind == eError)
        return sScript.failure(nullptr);
    check(sHandler != nullptr, "nobody waits for nothing");
    const auto finished = newSignal(bus, "Finished", 'b', kind);
    BusError error;
    sHandler(finished.get(), sHandled, error.get());
    return 1;
}

int sd_bus_wait(sd_bus*, std::uint64_t)
{
    return 0;
}
}
