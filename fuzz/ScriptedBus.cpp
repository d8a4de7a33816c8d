#include "fuzz/ScriptedBus.h"

#include "dbus/Handles.h"
#include "fuzz/Check.h"

#include <dlfcn.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace {

enum AnswerE : std::uint8_t
{
    eValue = 1,
    eOtherType = 2,
    eError = 3,
    eNotSent = 4,
    eBehindStrays = 5,
    eLost = 6,
    eNone = 7
};
constexpr unsigned int kAnswers = 8; ///< those without a name are the usual one
constexpr unsigned int kFlood = 1000;

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
    {"AddMatch", "s", 0},
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

    int failure()
    {
        static constexpr int kErrors[] = {EIO, ETIMEDOUT, ECONNRESET, ENOTCONN, EACCES, ENOBUFS, ENOMEM, EHOSTUNREACH};
        return kErrors[byte() % std::size(kErrors)];
    }

private:
    std::span<const std::uint8_t> mLeft;
};

Script sScript;
std::uint64_t sCookie = 0;

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

MessagePtr errorTo(sd_bus_message* call, int error)
{
    MessagePtr answer;
    check(adopt(answer, [&](sd_bus_message** m) { return sd_bus_message_new_method_errnof(call, m, error, "no"); }) >=
              0,
          "a call can be refused");
    received(answer.get(), ++sCookie);
    return answer;
}

MessagePtr newSignal(sd_bus* bus, const char* path, const char* interface, const char* member)
{
    MessagePtr signal;
    check(adopt(signal,
                [&](sd_bus_message** m) { return sd_bus_message_new_signal(bus, m, path, interface, member); }) >= 0,
          "a signal can be made");
    return signal;
}

MessagePtr newLogoSignal(sd_bus* bus, const char* member, unsigned int kind)
{
    MessagePtr signal = newSignal(bus, "/com/kelvora/logohandler", "com.kelvora.logohandler", member);
    append(signal.get(), 'b', kind);
    received(signal.get(), ++sCookie);
    return signal;
}

/// The logo handler leaves the bus.
MessagePtr newOwnerChanged(sd_bus* bus)
{
    MessagePtr signal = newSignal(bus, "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged");
    check(sd_bus_message_append(signal.get(), "sss", "com.kelvora.logohandler", ":1.7", "") >= 0 &&
              sd_bus_message_set_sender(signal.get(), "org.freedesktop.DBus") >= 0,
          "a signal of the bus can be made");
    received(signal.get(), ++sCookie);
    return signal;
}

MessagePtr newStray(sd_bus* bus, unsigned int kind)
{
    switch (kind) {
    case 1:
        return newLogoSignal(bus, "Finished", eValue);
    case 2:
        return newOwnerChanged(bus);
    default:
        return newLogoSignal(bus, "Stray", eValue);
    }
}

/// For whoever waits: the clock is set forward.
void skip(std::uint64_t microseconds)
{
    std::mutex mutex;
    std::condition_variable never;
    std::unique_lock lock(mutex);
    never.wait_for(lock, std::chrono::microseconds(microseconds));
}

/// What is to come over a connection.
class Connection
{
public:
    void addFilter(sd_bus_message_handler_t filter, void* data)
    {
        mFilter = filter;
        mFilterData = data;
    }

    int send(sd_bus* bus, sd_bus_message* call);
    int process(sd_bus* bus, sd_bus_message** message);
    int wait(sd_bus* bus, std::uint64_t microseconds);

    bool isReady() const { return mReady; }
    bool isUnsent() const { return mUnsent; }

private:
    void comeLate(sd_bus* bus, MessagePtr answer);
    void neverCome(MessagePtr answer);
    int awaitLogos(sd_bus* bus);
    int deliver(MessagePtr received, sd_bus_message** message);
    int lose(sd_bus* bus, int error);

    sd_bus_message_handler_t mFilter = nullptr;
    void* mFilterData = nullptr;
    std::deque<MessagePtr> mComing; ///< while a call waits, its answer last; null: nothing is there yet
    MessagePtr mTooLate;            ///< an answer that comes when its call has been given up
    bool mTooLateIsNext = false;    ///< and only while the next call waits
    unsigned int mStrays = 0;       ///< that come while nothing waits
    std::uint64_t mCalled = 0;      ///< cookie of the call that was sent and has no answer yet; 0: none
    bool mReady = false;
    bool mUnsent = false; ///< the call that was given up is still in the process
    int mLoss = 0;        ///< the error that ends the connection while a call waits
    int mWaitError = 0;   ///< of the next wait
};

/// Each kind of answer but the ones that come at once.
int Connection::send(sd_bus* bus, sd_bus_message* call)
{
    const tMember& member = memberOf(call);
    check(mComing.empty(), "the answer of a call is taken before the next call");
    check(!mUnsent, "a call that was given up does not leave with a later one");
    const unsigned int kind = sScript.answer();
    if (kind == eNotSent)
        return -sScript.failure();
    check(sd_bus_message_seal(call, ++sCookie, 0) >= 0, "only whole messages are sent");
    mCalled = sCookie;
    if (mTooLateIsNext && mTooLate)
        mComing.push_back(std::move(mTooLate));
    if (kind == eError)
        mComing.push_back(errorTo(call, sScript.failure()));
    else if (kind == eLost)
        mLoss = sScript.failure();
    else if (kind == eBehindStrays)
        comeLate(bus, answerTo(call, member.answer, kAnswers));
    else if (kind == eNone)
        neverCome(answerTo(call, member.answer, kAnswers));
    else
        mComing.push_back(answerTo(call, member.answer, kind));
    return 0;
}

void Connection::comeLate(sd_bus* bus, MessagePtr answer)
{
    const unsigned int how = sScript.byte();
    for (unsigned int strays = how & 3U; strays > 0; --strays)
        mComing.push_back(newStray(bus, how >> 3U & 3U));
    mComing.push_back(nullptr);
    mWaitError = (how & 4U) != 0 ? EINTR : 0;
    mComing.push_back(std::move(answer));
}

void Connection::neverCome(MessagePtr answer)
{
    const unsigned int how = sScript.byte();
    mUnsent = (how & 4U) != 0;
    if (!mUnsent && (how & 1U) != 0)
        mTooLate = std::move(answer);
    mTooLateIsNext = (how & 2U) != 0;
    mStrays = (how & 8U) != 0 ? kFlood : 0;
}

/// Whoever reads without looking at the messages waits for no answer.
int Connection::process(sd_bus* bus, sd_bus_message** message)
{
    if (sd_bus_is_open(bus) <= 0)
        return -ENOTCONN;
    if (!mComing.empty()) {
        if (!mComing.front())
            return 0;
        MessagePtr next = std::move(mComing.front());
        mComing.pop_front();
        check(message != nullptr, "whoever waits for an answer wants to see what comes");
        std::uint64_t answered = 0;
        if (sd_bus_message_get_reply_cookie(next.get(), &answered) >= 0 && answered == mCalled)
            mCalled = 0;
        return deliver(std::move(next), message);
    }
    if (mLoss != 0)
        return lose(bus, std::exchange(mLoss, 0));
    if (message == nullptr && mTooLate && !mTooLateIsNext)
        return deliver(std::move(mTooLate), message);
    if (message == nullptr && mStrays > 0)
        return mStrays-- > 0 ? 1 : 0;
    return mFilter != nullptr && mCalled == 0 ? awaitLogos(bus) : 0;
}

/// What comes to the one who waits for the logos' end.
int Connection::awaitLogos(sd_bus* bus)
{
    const unsigned int kind = sScript.answer();
    switch (kind) {
    case eError:
        return lose(bus, sScript.failure());
    case eNotSent:
        mWaitError = sScript.failure();
        return 0;
    case eBehindStrays:
        mWaitError = EINTR;
        return 0;
    case eLost:
        return deliver(newOwnerChanged(bus), nullptr);
    case eNone:
        return 0;
    default:
        return deliver(newLogoSignal(bus, "Finished", kind), nullptr);
    }
}

int Connection::deliver(MessagePtr received, sd_bus_message** message)
{
    mReady = true;
    sd_bus_error error{}; // no filter sets one
    if (mFilter != nullptr && mFilter(received.get(), mFilterData, &error) != 0)
        received.reset();
    if (message != nullptr)
        *message = received.release();
    return 1;
}

int Connection::lose(sd_bus* bus, int error)
{
    sd_bus_close(bus);
    return -error;
}

int Connection::wait(sd_bus* bus, std::uint64_t microseconds)
{
    if (sd_bus_is_open(bus) <= 0)
        return -ENOTCONN;
    check(mCalled != 0 || mFilter != nullptr, "nobody waits for nothing");
    if (mLoss != 0 || (!mComing.empty() && mComing.front()))
        return 1; // there is something to read
    if (!mComing.empty()) {
        mComing.pop_front();
    } else if (mWaitError == 0) {
        skip(microseconds);
        return 0;
    }
    return mWaitError != 0 ? -std::exchange(mWaitError, 0) : 1;
}

std::map<sd_bus*, Connection> sConnections; ///< since the script was given

} // namespace

void scriptBus(std::span<const std::uint8_t> script)
{
    // Without an address the daemon would not even try.
    static const int addressed = setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/scripted", 1) +
                                 setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/scripted", 1);
    static_cast<void>(addressed);
    sScript.start(script);
    sCookie = 0;
    sConnections.clear();
}

// The program's own functions stand before those of the library.
extern "C" {

/// The other end is closed. The library writes its greeting and then, since no message gets to the socket, nothing.
int sd_bus_start(sd_bus* bus)
{
    if (sScript.answer() == eError)
        return -sScript.failure();
    static const auto start = reinterpret_cast<int (*)(sd_bus*)>(dlsym(RTLD_NEXT, "sd_bus_start"));
    int ends[2];
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0, "there are sockets");
    const UniqueFd other(ends[1]);
    check(sd_bus_set_bus_client(bus, 0) >= 0 && sd_bus_set_fd(bus, ends[0], ends[0]) >= 0 && start(bus) >= 0,
          "a connection can be made");
    sConnections.insert_or_assign(bus, Connection());
    return 0;
}

int sd_bus_send(sd_bus* bus, sd_bus_message* call, std::uint64_t* cookie)
{
    if (sd_bus_is_open(bus) <= 0)
        return -ENOTCONN;
    const int result = sConnections[bus].send(bus, call);
    if (result >= 0)
        sd_bus_message_get_cookie(call, cookie);
    return result;
}

int sd_bus_process(sd_bus* bus, sd_bus_message** message)
{
    return sConnections[bus].process(bus, message);
}

int sd_bus_wait(sd_bus* bus, std::uint64_t microseconds)
{
    return sConnections[bus].wait(bus, microseconds);
}

int sd_bus_add_filter(sd_bus* bus, sd_bus_slot**, sd_bus_message_handler_t filter, void* data)
{
    sConnections[bus].addFilter(filter, data);
    return 0;
}

int sd_bus_is_ready(sd_bus* bus)
{
    if (sd_bus_is_open(bus) <= 0)
        return -ENOTCONN;
    return sConnections[bus].isReady() ? 1 : 0;
}

int sd_bus_get_n_queued_write(sd_bus* bus, std::uint64_t* count)
{
    *count = sConnections[bus].isUnsent() ? 1 : 0;
    return 0;
}
}
