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

/// Starts dbus-broker on a socket at the path, and returns when it accepts connections. Everybody may do everything;
/// what a user may allocate is the broker's own default. log: a descriptor for its standard error. Throws
/// std::runtime_error when it does not come up.
tBroker startBroker(const std::string& socket, int log);

} // namespace sim
