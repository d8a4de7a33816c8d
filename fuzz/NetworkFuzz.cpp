// Any bytes as the network record of method 12, in a controller that takes such requests.

#include "core/Vorlan.h"
#include "fuzz/Check.h"
#include "fuzz/InlineThreads.h"
#include "fuzz/NoBus.h"
#include "protocol/Wire.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace {

std::unique_ptr<Vorlan> controller()
{
    withoutBus();
    auto vorlan = std::make_unique<Vorlan>();
    vorlan->init();
    Vorlan::tBytes applyConfig{wire::eCmdCall, wire::eMethodApplyConfig};
    vorlan->parse(applyConfig);
    return vorlan;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InlineThreads inlineThreads;
    static const auto vorlan = controller();
    Vorlan::tBytes request{wire::eCmdCall, wire::eMethodSetNetworkCfg};
    request.insert(request.end(), data, data + size);
    check(vorlan->parse(request), "a network record is accepted whatever it holds");
    return 0;
}
