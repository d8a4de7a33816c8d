#pragma once

#include <systemd/sd-bus.h>

/// The object's properties, method and signal. Its user data is the SDBusManager.
extern const sd_bus_vtable kVorlanTable[];
