#pragma once

#include "dbus/Handles.h"

#include <exception>
#include <functional>

// Connections to the buses and calls over them: the one place that opens a bus, and the one that waits for an answer.
// A connection is for one thread at a time.

enum class BusE
{
    eSystem,
    eUser
};

/// Asked while a call waits, several times a second. Once it is true the call is given a quarter of a second more.
/// Empty: nothing but the call's time-out ends the wait.
using tIsStopped = std::function<bool()>;

/// Thrown where a stop keeps a value from being read or written: what depends on it must not happen either.
class BusStopped : public std::exception
{
public:
    const char* what() const noexcept override { return "stopped"; }
};

/// Opens a connection to the bus at the address that the library would take, one that takes no file descriptors from
/// anybody. The bus need not have said anything yet: that counts against the time-out of the first call.
/// 0 or a negative errno.
int openBus(BusE which, BusPtr& bus);

/// Sends a call and waits for its answer, for at most the library's call time-out; what else comes meanwhile is
/// dispatched or dropped. 0 and the answer, where the caller wants it; or a negative errno: that of the error which was
/// answered, ETIMEDOUT, ECANCELED at a stop, or what became of the connection.
int callBus(sd_bus* bus, sd_bus_message* call, const tIsStopped& isStopped = {}, MessagePtr* answer = nullptr);

/// A call of a method whose interface has its destination's name; null when there is no memory or no bus.
MessagePtr newCall(sd_bus* bus, const char* destination, const char* path, const char* member);

/// Reads what strangers have sent, a thousand messages at most. False when the connection is of no more use: lost, or
/// with still more to read.
bool readStrays(sd_bus* bus);
