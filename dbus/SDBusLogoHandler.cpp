#include "dbus/SDBusLogoHandler.h"

#include "dbus/Handles.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>

namespace {

constexpr char kDestination[] = "com.kelvora.logohandler"; // and interface
constexpr char kPath[] = "/com/kelvora/logohandler";
constexpr char kMatch[] = "interface='com.kelvora.logohandler', member='Finished', type='signal'";
constexpr std::uint64_t kTurnUs = 500'000;

/// Reports a libsystemd result as perror reports errno.
void report(const char* words, int result)
{
    errno = -result;
    std::perror(words);
}

} // namespace

bool SDBusLogoHandler::run()
{
    BusPtr bus;
    int result = adopt(bus, [](sd_bus** b) { return sd_bus_open_user(b); });
    if (result < 0) {
        report("SDBusLogoHandler: Failed to open user dbus", result);
        return false;
    }
    result = sd_bus_add_match(bus.get(), nullptr, kMatch, onFinished, this);
    if (result < 0) {
        report("SDBusLogoHandler: Failed to match signal for Finished", result);
        return false;
    }
    if (!mRunning)
        return mResult;
    BusError error;
    result = sd_bus_call_method(bus.get(), kDestination, kPath, kDestination, "Start", error.get(), nullptr, nullptr);
    if (result < 0) {
        report("SDBusLogoHandler: Failed to start logohandler", result);
        return false;
    }
    waitFinished(bus.get());
    return mResult;
}

void SDBusLogoHandler::waitFinished(sd_bus* bus)
{
    while (mRunning) {
        int result = sd_bus_process(bus, nullptr);
        if (result > 0)
            continue;
        if (result < 0)
            report("Failed to process bus", result);
        result = sd_bus_wait(bus, kTurnUs);
        if (result < 0) {
            report("Failed to wait on bus", result);
            if (mRunning) // a dead bus fails at once, turn after turn
                std::this_thread::sleep_for(std::chrono::microseconds(kTurnUs));
        }
    }
}

void SDBusLogoHandler::stop(bool result)
{
    mResult = result;
    mRunning = false;
}

int SDBusLogoHandler::onFinished(sd_bus_message* message, void* self, sd_bus_error*) noexcept
{
    int value = 0;
    const bool readable = sd_bus_message_read_basic(message, SD_BUS_TYPE_BOOLEAN, &value) > 0;
    static_cast<SDBusLogoHandler*>(self)->stop(readable && value != 0);
    return 0;
}
