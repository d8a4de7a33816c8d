// Any bytes as the network record of method 12, in a controller that takes such requests. Every call is answered.

#include "fuzz/Check.h"
#include "fuzz/Controller.h"
#include "fuzz/InlineThreads.h"
#include "fuzz/ScriptedBus.h"
#include "protocol/Wire.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace {

std::unique_ptr<Vorlan> controller()
{
    auto vorlan = newController();
    request(*vorlan, {wire::eCmdCall, wire::eMethodApplyConfig});
    return vorlan;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InlineThreads inlineThreads;
    static const auto vorlan = controller();
    scriptBus({});
    Vorlan::tBytes message{wire::eCmdCall, wire::eMethodSetNetworkCfg};
    message.insert(message.end(), data, data + size);
    check(request(*vorlan, std::move(message)), "a network record is accepted whatever it holds");
    return 0;
}
