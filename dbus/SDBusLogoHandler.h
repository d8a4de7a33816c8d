#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <string>

/// The client of the boot-logo handler on the user bus.
class SDBusLogoHandler
{
public:
    SDBusLogoHandler() = default;
    virtual ~SDBusLogoHandler() = default;
    SDBusLogoHandler(const SDBusLogoHandler&) = delete;
    SDBusLogoHandler& operator=(const SDBusLogoHandler&) = delete;

    /// Starts the logos and blocks until the logo handler says that they are finished, or until stop. Returns what it
    /// said with it; false, with a line on standard error, when the logos cannot be started, when the bus is lost and
    /// when the logo handler leaves it.
    bool run();

    /// Ends run within half a second; logos that were not started by then are not started any more. From any thread.
    void stop(bool result);

private:
    static int onMessage(sd_bus_message* message, void* self, sd_bus_error* error) noexcept;
    void onFinished(sd_bus_message* message);
    void onOwnerChanged(sd_bus_message* message);
    bool failed(const char* words, int result) const;
    int addMatch(sd_bus* bus, const char* rule);
    int start(sd_bus* bus);
    void waitFinished(sd_bus* bus);

    std::atomic<bool> mRunning = true;
    std::atomic<bool> mResult = false;
    // For the thread in run: unique names on the bus
    std::string mHandler;       ///< who answered Start
    std::string mLeft = "none"; ///< who owned the name last and has left
};
