#pragma once

#include "sim/Child.h"
#include "sim/Handles.h"

#include <string>

namespace sim {

/// A running dbus-broker without its launcher. It lives as long as the connection that commands it.
struct tBroker
{
    BusPtr controller;
    Child child;
};

/// Starts dbus-broker on a socket at the path, and returns when it accepts connections. Everybody may do everything,
/// with memory and descriptors to spare. log: a descriptor for its standard error. Throws std::runtime_error when it
/// does not come up.
tBroker startBroker(const std::string& socket, int log);

/// A socket that listens at the path, where nothing may be yet. Throws std::runtime_error.
UniqueFd listenAt(const std::string& path);

} // namespace sim
