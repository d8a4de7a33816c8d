#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdio>

// The least that can answer the read of a property: one byte, from the loop of libsystemd.

namespace {

constexpr char kName[] = "com.kelvora.bench.Echo"; // and interface
constexpr char kPath[] = "/com/kelvora/bench/Echo";

unsigned char sValue = 0;

} // namespace

int main()
{
    static const sd_bus_vtable kTable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("StatusQV", "y", nullptr, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SD_BUS_VTABLE_END,
    };
    sd_event* event = nullptr;
    sd_bus* bus = nullptr;
    const bool up = sd_event_default(&event) >= 0 && sd_bus_open_user(&bus) >= 0 &&
                    sd_bus_add_object_vtable(bus, nullptr, kPath, kName, kTable, &sValue) >= 0 &&
                    sd_bus_request_name(bus, kName, 0) >= 0 && sd_bus_attach_event(bus, event, 0) >= 0;
    std::fputs(up ? "ready\n" : "echo_service: no user bus\n", stderr);
    const int result = up ? sd_event_loop(event) : 1;
    sd_bus_flush_close_unref(bus);
    sd_event_unref(event);
    return result;
}
