#pragma once

#include "link/SManager.h"

#include <cstdlib>

/// Surroundings in which a controller handles requests without a bus and without a line: every call fails at once,
/// every reply is written nowhere.
class SilentSerial : public SerialIf
{
public:
    int getBackendType() override { return eBackendSerial; }
    int init(tInitParams*) override { return 0; }
    bool isOpen() const override { return true; }
    int readBlocking(unsigned char*, unsigned int, int) override { return 0; }
    int writeBlocking(const unsigned char*, unsigned int len, int) override { return static_cast<int>(len); }
};

inline bool withoutBus()
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    return SManager::registerSerialBackend(new SilentSerial);
}
