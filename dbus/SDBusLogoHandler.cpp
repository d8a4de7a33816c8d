#include "dbus/SDBusLogoHandler.h"

#include "dbus/Bus.h"
#include "os/Log.h"

#include <cerrno>
#include <cstdint>
#include <string_view>
#include <system_error>

namespace {

constexpr char kDestination[] = "com.kelvora.logohandler"; // and interface
constexpr char kPath[] = "/com/kelvora/logohandler";
constexpr char kFinished[] = "interface='com.kelvora.logohandler', member='Finished', type='signal'";
constexpr char kBus[] = "org.freedesktop.DBus"; // and interface
constexpr char kOwnerChanged[] = "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                                 "member='NameOwnerChanged',arg0='com.kelvora.logohandler'";
constexpr std::uint64_t kTurnUs = 500'000;

/// Reports a libsystemd result as perror reports errno.
void report(std::string_view words, int result)
{
    logErr({words, ": ", std::generic_category().message(-result)});
}

} // namespace

bool SDBusLogoHandler::run()
{
    BusPtr bus;
    int result = openBus(BusE::eUser, bus);
    if (result < 0) {
        report("SDBusLogoHandler: Failed to open user dbus", result);
        return false;
    }
    result = sd_bus_add_filter(bus.get(), nullptr, onMessage, this);
    for (const char* rule : {kFinished, kOwnerChanged})
        result = result < 0 ? result : addMatch(bus.get(), rule);
    if (result < 0)
        return failed("SDBusLogoHandler: Failed to match signal for Finished", result);
    if (!mRunning)
        return mResult;
    result = start(bus.get());
    if (result < 0)
        return failed("SDBusLogoHandler: Failed to start logohandler", result);
    waitFinished(bus.get());
    return mResult;
}

/// The result of run after a step that failed, or that was given up because all is over already.
bool SDBusLogoHandler::failed(const char* words, int result) const
{
    if (result == -ECANCELED && !mRunning) // else it is what the bus or the logo handler answered
        return mResult;
    report(words, result);
    return false;
}

int SDBusLogoHandler::addMatch(sd_bus* bus, const char* rule)
{
    const MessagePtr call = newCall(bus, kBus, "/org/freedesktop/DBus", "AddMatch");
    if (!call || sd_bus_message_append(call.get(), "s", rule) < 0)
        return -ENOMEM;
    return callBus(bus, call.get(), [this] { return !mRunning; });
}

int SDBusLogoHandler::start(sd_bus* bus)
{
    const MessagePtr call = newCall(bus, kDestination, kPath, "Start");
    MessagePtr answer;
    const int result = call ? callBus(
                                  bus, call.get(), [this] { return !mRunning; }, &answer)
                            : -ENOMEM;
    const char* const sender = answer ? sd_bus_message_get_sender(answer.get()) : nullptr;
    mHandler = sender != nullptr ? sender : "";
    return result;
}

/// The first failure ends the logos: a bus that is lost does not come back to this connection.
void SDBusLogoHandler::waitFinished(sd_bus* bus)
{
    while (mRunning) {
        int result = mLeft == mHandler ? -EOWNERDEAD : sd_bus_process(bus, nullptr);
        if (result > 0)
            continue;
        if (result < 0)
            return report("Failed to process bus", result);
        result = sd_bus_wait(bus, kTurnUs);
        if (result < 0 && result != -EINTR)
            return report("Failed to wait on bus", result);
    }
}

void SDBusLogoHandler::stop(bool result)
{
    mResult = result;
    mRunning = false;
}

int SDBusLogoHandler::onMessage(sd_bus_message* message, void* self, sd_bus_error*) noexcept
{
    auto* const handler = static_cast<SDBusLogoHandler*>(self);
    const char* const sender = sd_bus_message_get_sender(message);
    if (sd_bus_message_is_signal(message, kDestination, "Finished") > 0)
        handler->onFinished(message);
    else if (sd_bus_message_is_signal(message, kBus, "NameOwnerChanged") > 0 && sender != nullptr &&
             std::string_view(sender) == kBus)
        handler->onOwnerChanged(message);
    return 0;
}

void SDBusLogoHandler::onFinished(sd_bus_message* message)
{
    int value = 0;
    const bool readable = sd_bus_message_read_basic(message, SD_BUS_TYPE_BOOLEAN, &value) > 0;
    stop(readable && value != 0);
}

/// A handler that starts again knows nothing of the logos that the one before it was to show.
void SDBusLogoHandler::onOwnerChanged(sd_bus_message* message)
{
    const char* name = nullptr;
    const char* before = nullptr;
    if (sd_bus_message_read(message, "ss", &name, &before) > 0 && name == std::string_view(kDestination) &&
        *before != '\0')
        mLeft = before;
}
