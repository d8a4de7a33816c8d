#pragma once

#include "sim/EventLoop.h"
#include "sim/PrivateBus.h"

#include <map>
#include <optional>
#include <string>

namespace sim {

/// The desktop on the user bus: it listens to com.kelvora.vorlan and asks it. What it hears becomes events of the
/// service "vorlan" in the timeline. All operations may be called from any thread.
class Desktop
{
public:
    /// What a call gave.
    struct tResult
    {
        bool ok = false;
        std::string errorName; ///< when not ok
        std::string errorText;
        std::string signature; ///< of the answer
        std::string value;     ///< the answer as text: "10.0.0.5" with its quotation marks, true, 4
        std::string raw;       ///< the answer's text without quotation marks when it is one single text
    };

    Desktop(EventLoop& loop, Timeline& timeline, const PrivateBus& bus);
    Desktop(const Desktop&) = delete;
    Desktop& operator=(const Desktop&) = delete;
    ~Desktop();

    /// Listens (again): with a fresh connection when the bus was restarted.
    void listen();

    /// Each of these opens a connection of its own, asks and waits for the answer.
    tResult property(const std::string& name, milliseconds deadline = kDeadline) const;
    /// Empty when the call fails.
    std::map<std::string, std::string> allProperties(milliseconds deadline = kDeadline) const;
    tResult setProperty(const std::string& name, const std::string& text, milliseconds deadline = kDeadline) const;
    /// The XML in raw.
    tResult introspect(milliseconds deadline = kDeadline) const;
    tResult showQmx(milliseconds deadline = kDeadline) const;
    /// Any call without arguments on the daemon's object.
    tResult call(const std::string& interface, const std::string& member, milliseconds deadline = kDeadline) const;

    /// The daemon's name has an owner; waits until it has.
    bool waitForName(milliseconds deadline = kDeadline) const;
    /// The daemon's service answers; waits until it does.
    bool waitForService(milliseconds deadline = kDeadline) const;

private:
    static int onSignal(sd_bus_message* message, void* userData, sd_bus_error* error) noexcept;
    void heard(sd_bus_message* message);
    void add(KindE kind, std::string member, std::string signature, std::string arguments);
    BusPtr open() const;

    EventLoop& mLoop;
    Timeline& mTimeline;
    const PrivateBus& mBusDaemon;
    BusPtr mBus;
};

} // namespace sim
