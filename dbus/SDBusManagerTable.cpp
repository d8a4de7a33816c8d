#include "dbus/SDBusManagerTable.h"

#include "core/VorlanCfg.h"
#include "dbus/SDBusManager.h"

#include <cerrno>
#include <cstdint>
#include <exception>

namespace {

// Getters append one value and return the append's result.

int getAnimationEnabled(SDBusManager&, sd_bus_message* reply)
{
    return sd_bus_message_append(reply, "b", int{VorlanCfg::cfg()->AnimationEnabled});
}

int getStatusText(SDBusManager&, sd_bus_message* reply)
{
    return sd_bus_message_append(reply, "s", VorlanCfg::cfg()->StatusText.get().c_str());
}

int getStatusQV(SDBusManager&, sd_bus_message* reply)
{
    return sd_bus_message_append(reply, "y", static_cast<int>(VorlanCfg::cfg()->StatusQV & 0xFFU));
}

int getIpAddrQV(SDBusManager&, sd_bus_message* reply)
{
    return sd_bus_message_append(reply, "s", VorlanCfg::cfg()->IpAddrQV.get().c_str());
}

template <auto Getter>
int getBool(SDBusManager& service, sd_bus_message* reply)
{
    const bool value = service.whileOthersMayEmit([&] { return (service.*Getter)(); });
    return sd_bus_message_append(reply, "b", int{value});
}

template <auto Getter>
int getInt(SDBusManager& service, sd_bus_message* reply)
{
    const int value = service.whileOthersMayEmit([&] { return (service.*Getter)(); });
    return sd_bus_message_append(reply, "i", value);
}

/// Runs a getter for the bus library. What cannot be asked any more has no value: better none than a wrong one.
template <auto Getter>
int property(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* self, sd_bus_error*) noexcept
{
    try {
        return Getter(*static_cast<SDBusManager*>(self), reply);
    } catch (const BusStopped&) {
        return -ECANCELED;
    } catch (const std::exception&) {
        return -ENOMEM;
    }
}

int callShowQMX(sd_bus_message* message, void* self, sd_bus_error* error) noexcept
{
    try {
        auto& service = *static_cast<SDBusManager*>(self);
        service.whileOthersMayEmit([&] { service.showQMX(); });
        return sd_bus_reply_method_return(message, nullptr);
    } catch (const BusStopped&) { // its later steps are left out
        return -ECANCELED;
    } catch (const std::exception& e) {
        return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, e.what());
    }
}

constexpr std::uint64_t kEmitsChange = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;

} // namespace

// "OrientationChanged" is sent too, but is not listed.
const sd_bus_vtable kVorlanTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("AnimationEnabled", "b", property<getAnimationEnabled>, 0, kEmitsChange),
    SD_BUS_PROPERTY("StatusText", "s", property<getStatusText>, 0, kEmitsChange),
    SD_BUS_PROPERTY("StatusQV", "y", property<getStatusQV>, 0, kEmitsChange),
    SD_BUS_PROPERTY("IpAddrQV", "s", property<getIpAddrQV>, 0, kEmitsChange),
    SD_BUS_PROPERTY("ShowLogos", "b", property<getBool<&SDBusManager::getShowLogos>>, 0, kEmitsChange),
    SD_BUS_PROPERTY("GifOffsetX", "i", property<getInt<&SDBusManager::getGiffOffsetX>>, 0, kEmitsChange),
    SD_BUS_PROPERTY("GifOffsetY", "i", property<getInt<&SDBusManager::getGiffOffsetY>>, 0, kEmitsChange),
    SD_BUS_PROPERTY("GifDelayMS", "i", property<getInt<&SDBusManager::getGiffDelayMS>>, 0, kEmitsChange),
    SD_BUS_PROPERTY("ShowQVStatus", "b", property<getBool<&SDBusManager::getShowQVStatus>>, 0, kEmitsChange),
    SD_BUS_METHOD("ShowQMX", "", "", callShowQMX, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("LogosFinished", "", 0),
    SD_BUS_VTABLE_END,
};
