#include "dbus/SDBusSysD.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <type_traits>
#include <utility>

using std::chrono::microseconds;
using std::chrono::steady_clock;

namespace {

constexpr char kDestination[] = "com.kelvora.sysdaemon"; // and interface
constexpr char kPath[] = "/com/kelvora/sysdaemon";

// Whoever reads the log knows the two prefixes; which operation uses which is part of the log's format.
constexpr char kSysD[] = "SDBusSysD";
constexpr char kSysDCtrl[] = "SysDDBusCtrl";

constexpr std::chrono::seconds kSlow{1};
constexpr std::uint64_t kHurryUs = 50'000;
constexpr std::uint64_t kForeverUs = 365 * 24 * 3600 * 1'000'000ULL; ///< longer time-outs would overflow the clock

} // namespace

/// A member of the system daemon and the words of its log lines.
struct SDBusSysD::tCall
{
    const char* prefix;
    const char* member;
    const char* failure;           ///< says that the call failed, or that its answer could not be read
    std::string_view subject = ""; ///< what the failure's words end in: a parameter's number, a key

    void log(const char* words, std::string_view what = "") const
    {
        // at once, however long: formatted output goes out in pieces of a few kilobytes
        std::string line(prefix);
        line.append(": ").append(words).append(what).append("\n");
        std::fputs(line.c_str(), stderr);
    }
    void logFailure() const { log(failure, subject); }
};

SDBusSysD::SDBusSysD()
{
    if (openBus() < 0)
        std::fputs("SDBusSysD: failed to open DBus\n", stderr);
}

int SDBusSysD::openBus()
{
    return adopt(mBus, [](sd_bus** bus) { return sd_bus_open_system(bus); });
}

void SDBusSysD::stop()
{
    mStopped = true;
}

void SDBusSysD::hurryAfter(const std::atomic<bool>& running)
{
    mRunning = &running;
}

MessagePtr SDBusSysD::newCall(const char* member)
{
    MessagePtr message;
    if (mBus)
        adopt(message, [&](sd_bus_message** m) {
            return sd_bus_message_new_method_call(mBus.get(), m, kDestination, kPath, kDestination, member);
        });
    return message;
}

/// Waits for the answer even when the caller has no use for it.
int SDBusSysD::callAndWait(sd_bus_message* message, MessagePtr* reply)
{
    if (message == nullptr)
        return -EINVAL;
    std::uint64_t timeOut = kHurryUs;
    if (!mHurry)
        sd_bus_get_method_call_timeout(mBus.get(), &timeOut);
    timeOut = std::min(timeOut, kForeverUs);
    const auto began = steady_clock::now();
    MessagePtr answer;
    std::uint64_t cookie = 0;
    int result = 0;
    do
        result =
            adopt(answer, [&](sd_bus_message** m) { return sd_bus_call(mBus.get(), message, timeOut, nullptr, m); });
    while (result == -EINTR && sd_bus_message_get_cookie(message, &cookie) < 0); // not even sent
    if (result == -EINTR)
        result = awaitAnswer(cookie, began + microseconds(timeOut), answer);
    if (mRunning != nullptr && !*mRunning && steady_clock::now() - began > kSlow)
        mHurry = true;
    if (reply != nullptr)
        *reply = std::move(answer);
    // Nobody else reads from this connection: answers that came too late and signals would pile up in its queue.
    std::uint64_t strays = 0;
    while (sd_bus_get_n_queued_read(mBus.get(), &strays) >= 0 && strays > 0) {
        if (sd_bus_process(mBus.get(), nullptr) <= 0)
            break;
    }
    return result;
}

/// sd_bus_call gives up on its answer when a signal comes; this goes on waiting, for as long as the call may take.
int SDBusSysD::awaitAnswer(std::uint64_t cookie, steady_clock::time_point end, MessagePtr& answer)
{
    for (;;) {
        int result = adopt(answer, [&](sd_bus_message** m) { return sd_bus_process(mBus.get(), m); });
        std::uint64_t answered = 0;
        if (answer && sd_bus_message_get_reply_cookie(answer.get(), &answered) >= 0 && answered == cookie) {
            if (sd_bus_message_is_method_error(answer.get(), nullptr) <= 0)
                return 0;
            answer.reset();
            return -EIO;
        }
        if (result == 0) {
            const auto left = std::chrono::ceil<microseconds>(end - steady_clock::now()).count();
            result = left > 0 ? sd_bus_wait(mBus.get(), static_cast<std::uint64_t>(left)) : -ETIMEDOUT;
        }
        if (result < 0 && result != -EINTR)
            return result;
    }
}

/// The create and append steps. A message that could not be filled is dropped: half of it on the bus would make the
/// bus daemon close the connection for good.
template <typename... Args>
MessagePtr SDBusSysD::prepare(const tCall& call, const char* signature, Args... args)
{
    MessagePtr message = newCall(call.member);
    if (!message)
        call.log("Failed to create dbus message");
    if constexpr (sizeof...(Args) > 0) {
        if (!message || sd_bus_message_append(message.get(), signature, args...) < 0) {
            call.log("Failed to append dbus msg");
            message.reset();
        }
    }
    return message;
}

template <typename... Args>
void SDBusSysD::invoke(const tCall& call, const char* signature, Args... args)
{
    const std::lock_guard lock(mMutex);
    if (mStopped)
        return;
    const MessagePtr message = prepare(call, signature, args...);
    if (callAndWait(message.get(), nullptr) < 0)
        call.logFailure();
}

/// A call whose answer is one basic value; it is left as it is on failure. A failed call makes the read fail too, and
/// each says so.
template <typename T, typename... Args>
void SDBusSysD::fetch(const tCall& call, char type, T& value, const char* signature, Args... args)
{
    const std::lock_guard lock(mMutex);
    if (mStopped)
        return;
    const MessagePtr message = prepare(call, signature, args...);
    MessagePtr reply;
    if (callAndWait(message.get(), &reply) < 0)
        call.logFailure();
    if constexpr (std::is_same_v<T, std::string>) {
        const char* text = nullptr;
        if (reply && sd_bus_message_read_basic(reply.get(), type, &text) > 0)
            value = text;
        else
            call.logFailure();
    } else if (!reply || sd_bus_message_read_basic(reply.get(), type, &value) <= 0) {
        call.logFailure();
    }
}

void SDBusSysD::methodNoParam(const char* member)
{
    invoke({kSysDCtrl, member, "Failed to call methodNoParam"}, "");
}

bool SDBusSysD::sysDaemonReady()
{
    const std::lock_guard lock(mMutex);
    // Asked while the device boots: the bus may be later than we are, or may have dropped us.
    if (!mBus || sd_bus_is_open(mBus.get()) <= 0)
        openBus();
    BusError error;
    int ready = 0;
    return mBus &&
           sd_bus_get_property_trivial(mBus.get(), kDestination, kPath, kDestination, "Ready", error.get(), 'b',
                                       &ready) >= 0 &&
           ready != 0;
}

void SDBusSysD::setTime(unsigned long long unixTime)
{
    invoke({kSysDCtrl, "SetUnixTime", "Failed to call setTime"}, "t", std::uint64_t{unixTime});
}

void SDBusSysD::setTimeZone(unsigned int index, bool flag)
{
    // "beep" is what this line has always said
    invoke({kSysDCtrl, "SetTimeZone", "Failed to call beep"}, "ub", index, int{flag});
}

void SDBusSysD::setBrightness(unsigned char brightness)
{
    invoke({kSysDCtrl, "SetBrightness", "Failed to call setBrightness"}, "u", std::uint32_t{brightness});
}

void SDBusSysD::setBrightnessRaw(unsigned char brightness)
{
    invoke({kSysDCtrl, "SetBrightnessRaw", "Failed to call setBrightnessRaw"}, "u", std::uint32_t{brightness});
}

void SDBusSysD::beep(unsigned int first, unsigned int second)
{
    invoke({kSysD, "BeepParam", "Failed to call beep"}, "uu", first, second);
}

void SDBusSysD::beep()
{
    methodNoParam("Beep");
}

void SDBusSysD::emuInputEv()
{
    methodNoParam("EmulateInputEvent");
}

void SDBusSysD::startUpdate()
{
    methodNoParam("SysUpdate");
}

void SDBusSysD::saveConfig()
{
    methodNoParam("SaveConfig");
}

void SDBusSysD::loadConfig()
{
    methodNoParam("LoadConfig");
}

void SDBusSysD::configureNet()
{
    methodNoParam("ConfigureNetwork");
}

void SDBusSysD::getIpAddress(std::string& address)
{
    fetch({kSysD, "GetNetIPv4Addr", "Failed to getIpAddress"}, 's', address, "");
}

bool SDBusSysD::getParamBool(ParamE param)
{
    int value = 0;
    fetch({kSysD, "GetParamBool", "Failed to get param: ", std::to_string(param)}, 'b', value, "u",
          std::uint32_t{param});
    return value != 0;
}

int SDBusSysD::getParamInt(ParamE param)
{
    int value = 0;
    fetch({kSysD, "GetParamInt", "Failed to get param: ", std::to_string(param)}, 'i', value, "u",
          std::uint32_t{param});
    return value;
}

std::string SDBusSysD::getParamString(ParamE param)
{
    std::string value;
    fetch({kSysD, "GetParamString", "Failed to get param: ", std::to_string(param)}, 's', value, "u",
          std::uint32_t{param});
    return value;
}

void SDBusSysD::setParamBool(ParamE param, bool value)
{
    invoke({kSysD, "SetParamBool", "Failed to set param: ", std::to_string(param)}, "ub", std::uint32_t{param},
           int{value});
}

void SDBusSysD::setParamInt(ParamE param, int value)
{
    invoke({kSysD, "SetParamInt", "Failed to set param: ", std::to_string(param)}, "ui", std::uint32_t{param}, value);
}

void SDBusSysD::setParamString(ParamE param, const std::string& value)
{
    invoke({kSysD, "SetParamString", "Failed to set param: ", std::to_string(param)}, "us", std::uint32_t{param},
           value.c_str());
}

int SDBusSysD::getCfgInt(const std::string& key)
{
    int value = 0;
    fetch({kSysD, "GetCfgInt", "Failed to get cfg: ", key}, 'i', value, "s", key.c_str());
    return value;
}

bool SDBusSysD::getCfgBool(const std::string& key)
{
    int value = 0;
    fetch({kSysD, "GetCfgBool", "Failed to get cfg: ", key}, 'b', value, "s", key.c_str());
    return value != 0;
}

std::string SDBusSysD::getCfgString(const std::string& key)
{
    std::string value;
    fetch({kSysD, "GetCfgString", "Failed to get cfg: ", key}, 's', value, "s", key.c_str());
    return value;
}

void SDBusSysD::setCfgString(const std::string& key, const std::string& value)
{
    invoke({kSysD, "SetCfgString", "Failed to set cfg: ", key}, "ss", key.c_str(), value.c_str());
}

void SDBusSysD::setCfgInt(const std::string& key, int value)
{
    invoke({kSysD, "SetCfgInt", "Failed to set cfg: ", key}, "si", key.c_str(), value);
}

void SDBusSysD::addCfgVar(const std::string& key)
{
    invoke({kSysD, "AddCfgVar", "Failed to add cfg var: ", key}, "s", key.c_str());
}
