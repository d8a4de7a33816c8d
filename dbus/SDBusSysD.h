#pragma once

#include "dbus/Handles.h"
#include "dbus/NetConf.h"
#include "dbus/ParamE.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

/// The client of the system daemon: each operation is one blocking call on the system bus, one at a time for the
/// whole process, and nothing is cached. Called by the link controller's thread, the service thread and the logo
/// thread. No failure is thrown: each step of a call that fails writes its line to standard error, and getters return
/// false, 0 or an empty text.
class SDBusSysD
{
public:
    /// Opens the system bus. Without one every operation fails with its lines; only sysDaemonReady tries again.
    SDBusSysD();
    virtual ~SDBusSysD() = default;

    /// No call begins after this one: operations return at once, silently, as if they had failed. At most the call
    /// that another thread has under way still runs.
    void stop();

    /// A stop waits for one slow answer, not for each that a request asks for: once running is false and a call has
    /// taken more than a second, each later one gets 50 ms. To be called before any operation; running outlives this.
    void hurryAfter(const std::atomic<bool>& running);

    /// The system daemon answers and says that it is ready.
    bool sysDaemonReady();

    void setTime(unsigned long long unixTime);
    void setTimeZone(unsigned int index, bool flag);
    void setBrightness(unsigned char brightness);
    void setBrightnessRaw(unsigned char brightness);
    void beep(unsigned int first, unsigned int second);
    void beep();
    void emuInputEv();
    void startUpdate();
    void saveConfig();
    void loadConfig();
    void configureNet();

    /// Replaces the text by the device's IPv4 address; leaves it as it is on failure.
    void getIpAddress(std::string& address);

    bool getParamBool(ParamE param);
    int getParamInt(ParamE param);
    std::string getParamString(ParamE param);
    void setParamBool(ParamE param, bool value);
    void setParamInt(ParamE param, int value);
    void setParamString(ParamE param, const std::string& value);

    // Named configuration variables
    int getCfgInt(const std::string& key);
    bool getCfgBool(const std::string& key);
    std::string getCfgString(const std::string& key);
    void setCfgString(const std::string& key, const std::string& value);
    void setCfgInt(const std::string& key, int value);
    void addCfgVar(const std::string& key);

    /// Hands the settings of one interface over. The first step that fails ends the dictionary; one that cannot be
    /// closed properly is not sent.
    void configureNetIf(const std::string& interface, const NetConf& conf);

private:
    struct tCall;

    template <typename... Args>
    void invoke(const tCall& call, const char* signature, Args... args);
    template <typename T, typename... Args>
    void fetch(const tCall& call, char type, T& value, const char* signature, Args... args);
    template <typename... Args>
    MessagePtr prepare(const tCall& call, const char* signature, Args... args);
    void methodNoParam(const char* member);

    int openBus();
    MessagePtr newCall(const char* member);
    int callAndWait(sd_bus_message* message, MessagePtr* reply);
    int awaitAnswer(std::uint64_t cookie, std::chrono::steady_clock::time_point end, MessagePtr& answer);

    BusPtr mBus; ///< null when opening failed; used under mMutex
    std::mutex mMutex;
    const std::atomic<bool>* mRunning = nullptr; ///< false when the daemon is to stop; null: nobody says so
    bool mHurry = false;                         ///< guarded by mMutex
    std::atomic<bool> mStopped = false;          ///< set without waiting for mMutex, looked at with it held
};
