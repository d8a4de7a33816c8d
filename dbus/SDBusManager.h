#pragma once

#include "dbus/Bus.h"
#include "dbus/FairMutex.h"
#include "dbus/ThreadBase.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

/// The daemon's own object on the user bus: com.kelvora.vorlan at /com/kelvora/vorlan. Its thread connects, serves
/// property reads and ShowQMX, and connects again when the bus went away. The emitters may be called from any thread:
/// what they announce is on its way when they return, with the value of that moment; without a connection they do
/// nothing. A connection that takes no more is given up and opened again.
class SDBusManager : public ThreadBase
{
public:
    SDBusManager();

    /// Returns within about a second, plus the call that the thread has under way.
    void stop() override;
    void Run() override;

    /// Not for a property that is asked of the system daemon: that would be done with the connection held.
    void emitPropChange(const std::string& name);
    void emitQVIpAddr();
    void emitQVStatus();
    void emitAnimationCfg();
    void emitStatusTxt();
    void emitShowQVStatus();
    void emitShowLogos();
    void emitOrientationChanged();
    void sendLogosFinished();

    // Asked of the system daemon anew each time; false or 0 when it does not answer. They throw BusStopped once it
    // cannot be asked any more, as showQMX does.
    bool getShowLogos();
    int getGiffOffsetX();
    int getGiffOffsetY();
    int getGiffDelayMS();
    bool getShowQVStatus();

    /// Makes the display show QV's diagnostics page.
    void showQMX();

    /// Asks another service from a callback of the bus library: others may emit meanwhile, so a service that is slow to
    /// answer holds up no emitter.
    template <typename Ask>
    auto whileOthersMayEmit(Ask ask)
    {
        const Pause pause(*this);
        return ask();
    }

private:
    /// Lets the emitters have the connection while the loop is in a callback.
    class Pause
    {
    public:
        explicit Pause(SDBusManager& service)
            : mpMutex(service.mDispatcher == std::this_thread::get_id() ? &service.mMutex : nullptr)
        {
            if (mpMutex != nullptr)
                mpMutex->unlock();
        }
        Pause(const Pause&) = delete;
        Pause& operator=(const Pause&) = delete;
        ~Pause()
        {
            if (mpMutex != nullptr)
                mpMutex->lock();
        }

    private:
        FairMutex* mpMutex;
    };

    bool initDBusConn();
    int requestName(sd_bus* bus);
    void connect();
    void serve();
    void disconnect();
    void pauseOneSecond();
    bool runOnce(std::uint64_t waitUs);
    bool isConnected();
    void watchQueue();
    template <typename Emit>
    void emitOn(Emit emit);
    void emitSignal(const char* member);
    void emitAsked(const char* name, bool (SDBusManager::*ask)());
    void wake();

    BusPtr mBus;               ///< null while there is no connection; used under mMutex
    EventPtr mEvent;           ///< service thread only
    FairMutex mMutex;          ///< held whenever the connection is used, also while the loop dispatches
    bool mGivenUp = false;     ///< the connection takes no more; guarded by mMutex
    std::uint64_t mUnsent = 0; ///< messages that waited after the last emit; guarded by mMutex
    std::chrono::steady_clock::time_point mSending; ///< when messages last left; guarded by mMutex
    std::atomic<std::thread::id> mDispatcher{};     ///< the thread that dispatches with mMutex held
    UniqueFd mWakeFd; ///< eventfd: has the loop look at the connection, or at the stop flag
};
