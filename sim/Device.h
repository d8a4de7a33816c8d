#pragma once

#include "sim/Daemon.h"
#include "sim/Desktop.h"
#include "sim/EventLoop.h"
#include "sim/IdleApp.h"
#include "sim/LogoHandler.h"
#include "sim/PrivateBus.h"
#include "sim/Pty.h"
#include "sim/SysDaemon.h"
#include "sim/SystemdManager.h"
#include "sim/TempDir.h"
#include "sim/Timeline.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace sim {

/// The whole simulated device: both buses with every stand-in on them, the line, the timeline and the daemon. It is up
/// when the constructor returns, except for the daemon. The configured serial device is the line, at 115200 bit/s.
class Device
{
public:
    Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;
    ~Device();

    /// Starts the daemon; without arguments it takes device and rate from the configuration store.
    void start(const std::string& executable, const std::vector<std::string>& arguments = {});

    /// Points this process's own DBUS_SYSTEM_BUS_ADDRESS and DBUS_SESSION_BUS_ADDRESS at the private buses, for the
    /// daemon's classes used in a test process. To be called while no other thread reads the environment; the
    /// destructor puts the old values back.
    void useInThisProcess();

    EventLoop& loop() { return mLoop; }
    Timeline& timeline() { return mTimeline; }
    PrivateBus& systemBus() { return mSystemBus; }
    PrivateBus& userBus() { return mUserBus; }
    SysDaemon& sysd() { return mSysd; }
    IdleApp& idle() { return mIdle; }
    LogoHandler& logo() { return mLogo; }
    SystemdManager& systemd() { return mSystemd; }
    Desktop& desktop() { return mDesktop; }
    Pty& line() { return mLine; }
    Daemon& daemon() { return mDaemon; }
    const std::string& folder() const { return mFolder.path(); }

    std::vector<Service*> services();
    /// By its short name; null for an unknown one.
    Service* service(const std::string& shortName);

    /// The line is lost, and comes back behind the same path.
    void hangUpLine();
    void reopenLine();
    /// Told, on the loop's thread, before the line is hung up and after it was opened again.
    void watchLine(std::function<void(bool up)> watcher);

    /// A bus is lost with all its connections, and comes back at the same address with the stand-ins that were present.
    void stopSystemBus();
    void startSystemBus();
    void stopUserBus();
    void startUserBus();
    /// Both buses are restarted: the system bus as one of this kind, the user bus as dbus-broker or else open.
    void runBusesAs(BusKindE kind);

private:
    using Saved = std::vector<std::pair<std::string, std::optional<std::string>>>;

    TempDir mFolder;
    Timeline mTimeline;
    PrivateBus mSystemBus;
    PrivateBus mUserBus;
    EventLoop mLoop;
    SysDaemon mSysd;
    IdleApp mIdle;
    LogoHandler mLogo;
    SystemdManager mSystemd;
    Desktop mDesktop;
    Pty mLine;
    std::function<void(bool up)> mLineWatcher; ///< used on the loop's thread
    Daemon mDaemon;
    Saved mEnvironment;
};

} // namespace sim
