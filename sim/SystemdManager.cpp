#include "sim/SystemdManager.h"

#include <string>

namespace sim {

SystemdManager::SystemdManager(EventLoop& loop, Timeline& timeline, const PrivateBus& bus)
    : Service(loop, timeline, bus,
              {"systemd", ChannelE::eUserBus, "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
               "org.freedesktop.systemd1.Manager"})
{
    setMembers({{"StartUnit", "ss", "o", [this](auto*, auto* reply, auto*) {
                     const std::string job = "/org/freedesktop/systemd1/job/" + std::to_string(++mJob);
                     return sd_bus_message_append(reply, "o", job.c_str());
                 }}});
    comeBack();
}

SystemdManager::~SystemdManager()
{
    shutDown();
}

} // namespace sim
