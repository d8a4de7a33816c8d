#include "dbus/SystemdManager.h"

bool startUnit(const char* unit, const tIsStopped& isStopped)
{
    BusPtr bus;
    if (openBus(BusE::eUser, bus) < 0)
        return false;
    MessagePtr call;
    adopt(call, [&](sd_bus_message** m) {
        return sd_bus_message_new_method_call(bus.get(), m, "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                                              "org.freedesktop.systemd1.Manager", "StartUnit");
    });
    if (call && sd_bus_message_append(call.get(), "ss", unit, "replace") >= 0)
        callBus(bus.get(), call.get(), isStopped);
    return true;
}
