#pragma once

#include "dbus/Bus.h"
#include "dbus/FairMutex.h"
#include "dbus/NetConf.h"
#include "dbus/ParamE.h"

#include <atomic>
#include <chrono>
#include <string>

/// The client of the system daemon: each operation is one blocking call on the system bus, one at a time for the
/// whole process, in the order in which they come, and nothing is cached. Called by the link controller's thread, the
/// service thread and the logo thread. No failure is thrown: each step of a call that fails writes its line to standard
/// error, and getters return false, 0 or an empty text. A connection that is lost or of no more use is replaced by the
/// next call, at most once a second.
class SDBusSysD
{
public:
    /// Opens the system bus.
    SDBusSysD();
    virtual ~SDBusSysD() = default;

    /// No call begins after this one: operations throw BusStopped. What another thread has under way is finished, but a
    /// bus that has not answered yet is not waited for.
    void stop();

    /// Nor is it waited for once `running` is false: operations throw BusStopped then. No other call is cut short. To
    /// be called before any operation; `running` outlives this.
    void openOnlyWhile(const std::atomic<bool>& running);

    /// The system daemon answers and says that it is ready. Throws nothing.
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

    MessagePtr newSysDCall(const char* member);
    int callAndWait(sd_bus_message* call, MessagePtr* answer = nullptr);
    void onUnanswered();
    void renewBus();
    bool isOfUse();

    BusPtr mBus;                                    ///< null until the bus could be opened once; used under mMutex
    FairMutex mMutex;                               ///< held for a whole operation
    unsigned int mUnanswered = 0;                   ///< calls of this connection; guarded by mMutex, as the next
    std::chrono::steady_clock::time_point mRenewed; ///< or tried to be
    const std::atomic<bool>* mRunning = nullptr;    ///< false when the daemon is to stop; null: nobody says so
    std::atomic<bool> mStopped = false;             ///< set without waiting for mMutex, looked at with it held
};
