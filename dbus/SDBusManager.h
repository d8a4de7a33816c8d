#pragma once

#include "dbus/Handles.h"
#include "dbus/ThreadBase.h"

#include <mutex>
#include <string>

/// The daemon's own object on the user bus: com.kelvora.vorlan at /com/kelvora/vorlan. Its thread connects, serves
/// property reads and ShowQMX, and connects again when the bus went away. The emitters may be called from any thread:
/// what they announce is on its way when they return, with the value of that moment; without a connection they do
/// nothing.
class SDBusManager : public ThreadBase
{
public:
    SDBusManager();

    /// Returns within about a second, plus the call that the thread has under way.
    void stop() override;
    void Run() override;

    void emitPropChange(const std::string& name);
    void emitQVIpAddr();
    void emitQVStatus();
    void emitAnimationCfg();
    void emitStatusTxt();
    void emitShowQVStatus();
    void emitShowLogos();
    void emitOrientationChanged();
    void sendLogosFinished();

    // Asked of the system daemon anew each time; false or 0 when it does not answer
    bool getShowLogos();
    int getGiffOffsetX();
    int getGiffOffsetY();
    int getGiffDelayMS();
    bool getShowQVStatus();

    /// Makes the display show QV's diagnostics page.
    void showQMX();

private:
    bool initDBusConn();
    void connect();
    void serve();
    void disconnect();
    void pauseOneSecond();
    bool runOnce();
    void emitSignal(const char* member);
    void wake();

    EventPtr mEvent;   ///< service thread only
    BusPtr mBus;       ///< null while there is no connection; used under mMutex
    std::mutex mMutex; ///< held whenever the connection is used, also while the loop dispatches
    UniqueFd mWakeFd;  ///< eventfd: has the loop look at the connection, or at the stop flag
};
