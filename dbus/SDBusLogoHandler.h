#pragma once

#include <systemd/sd-bus.h>

#include <atomic>

/// The client of the boot-logo handler on the user bus.
class SDBusLogoHandler
{
public:
    SDBusLogoHandler() = default;
    virtual ~SDBusLogoHandler() = default;
    SDBusLogoHandler(const SDBusLogoHandler&) = delete;
    SDBusLogoHandler& operator=(const SDBusLogoHandler&) = delete;

    /// Starts the logos and blocks until the logo handler says that they are finished, or until stop. Returns what it
    /// said with it; false, with a line on standard error, when the logos cannot be started.
    bool run();

    /// Ends run within half a second, or with the bus call that it has under way; logos that were not started by then
    /// are not started any more. From any thread.
    void stop(bool result);

private:
    static int onFinished(sd_bus_message* message, void* self, sd_bus_error* error) noexcept;
    void waitFinished(sd_bus* bus);

    std::atomic<bool> mRunning = true;
    std::atomic<bool> mResult = false;
};
