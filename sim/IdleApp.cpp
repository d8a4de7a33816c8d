#include "sim/IdleApp.h"

namespace sim {

namespace {

int nothing(sd_bus_message*, sd_bus_message*, sd_bus_error*)
{
    return 0;
}

} // namespace

IdleApp::IdleApp(EventLoop& loop, Timeline& timeline, const PrivateBus& bus)
    : Service(loop, timeline, bus,
              {"idle", ChannelE::eUserBus, "com.kelvora.IdleApp", "/com/kelvora/IdleApp", "com.kelvora.IdleApp"})
{
    setMembers({{"Exit", "", "", nothing}, {"DisableAnimation", "", "", nothing}, {"SetTextMsg", "s", "", nothing}});
    comeBack();
}

IdleApp::~IdleApp()
{
    shutDown();
}

} // namespace sim
