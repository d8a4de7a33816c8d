// Any sequence of request messages into a fresh controller that has no bus: every call fails at once.

#include "fuzz/Controller.h"
#include "fuzz/InlineThreads.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InlineThreads inlineThreads;
    static const int withoutBus = setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1) +
                                  setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    static_cast<void>(withoutBus);
    requests(*newController(), {data, size});
    return 0;
}
