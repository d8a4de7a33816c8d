#pragma once

#include "sim/Service.h"

namespace sim {

/// The service manager "org.freedesktop.systemd1" on the user bus, as far as StartUnit.
class SystemdManager : public Service
{
public:
    SystemdManager(EventLoop& loop, Timeline& timeline, const PrivateBus& bus);
    ~SystemdManager() override;

private:
    unsigned mJob = 0;
};

} // namespace sim
