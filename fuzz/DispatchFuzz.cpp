// Any sequence of request messages into a fresh controller. Each message comes behind a byte that holds its length.

#include "core/Vorlan.h"
#include "dbus/SDBusClients.h"
#include "fuzz/InlineThreads.h"
#include "fuzz/NoBus.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InlineThreads inlineThreads;
    static const bool prepared = withoutBus();
    static_cast<void>(prepared);
    SDBusClients::smpInstance.reset(); // the controller before this one has stopped the clients
    Vorlan vorlan;
    vorlan.init();
    while (size > 0) {
        const std::size_t count = std::min<std::size_t>(data[0], size - 1);
        Vorlan::tBytes message(data + 1, data + 1 + count);
        data += 1 + count;
        size -= 1 + count;
        try {
            vorlan.parse(message);
        } catch (const VorlanException&) {
            break; // the update has been started: no request follows
        }
    }
    return 0;
}
