#pragma once

#include "sim/Broker.h"
#include "sim/Child.h"
#include "sim/Handles.h"

#include <string>

namespace sim {

/// What runs a private bus.
enum class BusKindE
{
    eOpen,   ///< dbus-daemon: everybody may do everything, and no limit is met by a test
    eStock,  ///< dbus-daemon with the policy of an installed system bus, its limits and the daemon's package
    eBroker, ///< dbus-broker with its own limits: everybody may do everything
};

/// A real dbus-daemon or dbus-broker of its own, on a socket in a folder of the caller's. It knows no
/// service files: a name without an owner is unknown at once.
class PrivateBus
{
public:
    /// Not started yet. name is the socket's file name.
    PrivateBus(const std::string& folder, const std::string& name);
    /// What runs it from the next start on; at first eOpen.
    void setKind(BusKindE kind) { mKind = kind; }
    ~PrivateBus();

    /// Starts it and returns when it accepts connections; the address is the same every time. Throws
    /// std::runtime_error when it does not come up.
    void start();
    /// Kills it: every connection is lost.
    void stop();
    bool running() const { return static_cast<bool>(mDaemon); }

    /// For DBUS_SYSTEM_BUS_ADDRESS and its like.
    const std::string& address() const { return mAddress; }
    const std::string& socket() const { return mSocket; }
    pid_t pid() const { return mDaemon.pid(); }

private:
    void startDaemon(int log);

    BusKindE mKind = BusKindE::eOpen;
    std::string mSocket;
    std::string mConfig;
    std::string mAddress;
    BusPtr mController; ///< of a dbus-broker
    Child mDaemon;
};

/// A fresh connection to the bus at the address, for the thread that opens it. Null when the bus is down.
BusPtr openBus(const std::string& address);

} // namespace sim
