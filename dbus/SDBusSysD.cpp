#include "dbus/SDBusSysD.h"

#include "os/Log.h"

#include <cerrno>
#include <string_view>
#include <type_traits>

using std::chrono::steady_clock;

namespace {

constexpr char kDestination[] = "com.kelvora.sysdaemon"; // and interface
constexpr char kPath[] = "/com/kelvora/sysdaemon";

// Whoever reads the log knows the two prefixes; which operation uses which is part of the log's format.
constexpr char kSysD[] = "SDBusSysD";
constexpr char kSysDCtrl[] = "SysDDBusCtrl";

constexpr std::chrono::seconds kRetry{1};
constexpr unsigned int kMaxUnanswered = 64; ///< a bus keeps a place for each, and a usual one has 128 for a connection

} // namespace

/// A member of the system daemon and the words of its log lines.
struct SDBusSysD::tCall
{
    const char* prefix;
    const char* member;
    const char* failure;           ///< says that the call failed, or that its answer could not be read
    std::string_view subject = ""; ///< what the failure's words end in: a parameter's number, a key

    void log(std::string_view words, std::string_view what = "") const { logErr({prefix, ": ", words, what}); }
    void logFailure() const { log(failure, subject); }
};

SDBusSysD::SDBusSysD()
{
    if (openBus(BusE::eSystem, mBus) >= 0)
        return;
    mRenewed = steady_clock::now();
    logErr({"SDBusSysD: failed to open DBus"});
}

void SDBusSysD::stop()
{
    mStopped = true;
}

void SDBusSysD::openOnlyWhile(const std::atomic<bool>& running)
{
    mRunning = &running;
}

/// The beginning of each operation, with mMutex held.
void SDBusSysD::renewBus()
{
    if (mStopped)
        throw BusStopped();
    if (isOfUse() || steady_clock::now() - mRenewed < kRetry)
        return;
    mRenewed = steady_clock::now();
    if (openBus(BusE::eSystem, mBus) >= 0)
        mUnanswered = 0;
}

/// Nobody reads between two calls: what came meanwhile tells whether the bus is still there, and whether somebody
/// floods it.
bool SDBusSysD::isOfUse()
{
    return mBus && readStrays(mBus.get()) && mUnanswered < kMaxUnanswered;
}

MessagePtr SDBusSysD::newSysDCall(const char* member)
{
    return newCall(mBus.get(), kDestination, kPath, member);
}

/// Waits for the answer even when the caller has no use for it.
int SDBusSysD::callAndWait(sd_bus_message* call, MessagePtr* answer)
{
    tIsStopped isStopped;
    if (mBus && sd_bus_is_ready(mBus.get()) <= 0)
        isStopped = [this] {
            return (mStopped || (mRunning != nullptr && !*mRunning)) && sd_bus_is_ready(mBus.get()) <= 0;
        };
    const int result = callBus(mBus.get(), call, isStopped, answer);
    const bool stopped = result == -ECANCELED && isStopped && isStopped(); // else it is what was answered
    if (result == -ETIMEDOUT || stopped)
        onUnanswered();
    if (stopped)
        throw BusStopped();
    return result;
}

/// What the bus has not taken yet must not reach the system daemon when nobody expects it any more.
void SDBusSysD::onUnanswered()
{
    ++mUnanswered;
    std::uint64_t unsent = 0;
    if (sd_bus_is_ready(mBus.get()) <= 0 || sd_bus_get_n_queued_write(mBus.get(), &unsent) < 0 || unsent > 0)
        sd_bus_close(mBus.get());
}

/// The create and append steps. A message that could not be filled is dropped: half of it on the bus would make the
/// bus daemon close the connection for good.
template <typename... Args>
MessagePtr SDBusSysD::prepare(const tCall& call, const char* signature, Args... args)
{
    MessagePtr message = newSysDCall(call.member);
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
    renewBus();
    const MessagePtr message = prepare(call, signature, args...);
    if (callAndWait(message.get()) < 0)
        call.logFailure();
}

/// A call whose answer is one basic value; it is left as it is on failure. A failed call makes the read fail too, and
/// each says so.
template <typename T, typename... Args>
void SDBusSysD::fetch(const tCall& call, char type, T& value, const char* signature, Args... args)
{
    const std::lock_guard lock(mMutex);
    renewBus();
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
    try {
        renewBus();
        MessagePtr call;
        if (mBus)
            adopt(call, [&](sd_bus_message** m) {
                return sd_bus_message_new_method_call(mBus.get(), m, kDestination, kPath,
                                                      "org.freedesktop.DBus.Properties", "Get");
            });
        MessagePtr answer;
        int ready = 0;
        return call && sd_bus_message_append(call.get(), "ss", kDestination, "Ready") >= 0 &&
               callAndWait(call.get(), &answer) >= 0 && sd_bus_message_read(answer.get(), "v", "b", &ready) > 0 &&
               ready != 0;
    } catch (const BusStopped&) {
        return false;
    }
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
