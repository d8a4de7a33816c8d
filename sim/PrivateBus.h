#pragma once

#include "sim/Child.h"
#include "sim/Handles.h"

#include <string>

namespace sim {

/// A real dbus-daemon of its own, with its own configuration, on a socket in a folder of the caller's. It knows no
/// service files: a name without an owner is unknown at once.
class PrivateBus
{
public:
    /// Not started yet. name is the socket's file name.
    PrivateBus(const std::string& folder, const std::string& name);
    ~PrivateBus();

    /// Starts it and returns when it accepts connections; the address is the same every time. Throws
    /// std::runtime_error when it does not come up.
    void start();
    /// Kills it: every connection is lost.
    void stop();
    bool running() const { return static_cast<bool>(mDaemon); }

    /// For DBUS_SYSTEM_BUS_ADDRESS and its like.
    const std::string& address() const { return mAddress; }
    pid_t pid() const { return mDaemon.pid(); }

private:
    std::string mSocket;
    std::string mConfig;
    std::string mAddress;
    Child mDaemon;
};

/// A fresh connection to the bus at the address, for the thread that opens it. Null when the bus is down.
BusPtr openBus(const std::string& address);

} // namespace sim
