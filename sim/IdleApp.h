#pragma once

#include "sim/Service.h"

#include <string>

namespace sim {

/// The idle application "com.kelvora.IdleApp" on the user bus.
class IdleApp : public Service
{
public:
    IdleApp(EventLoop& loop, Timeline& timeline, const PrivateBus& bus);
    ~IdleApp() override;
};

} // namespace sim
