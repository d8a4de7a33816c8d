// Any sequence of request messages into a fresh controller whose calls get any answers: behind the messages, after a
// byte 255 where a length would be, comes the script of the buses.

#include "fuzz/Controller.h"
#include "fuzz/InlineThreads.h"
#include "fuzz/ScriptedBus.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace {

constexpr std::uint8_t kEndOfMessages = 255; ///< in place of a message's length

std::span<const std::uint8_t> messagesOf(std::span<const std::uint8_t> input)
{
    std::size_t end = 0;
    while (end < input.size() && input[end] != kEndOfMessages)
        end += 1U + input[end];
    return input.first(std::min(end, input.size()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InlineThreads inlineThreads;
    const std::span input(data, size);
    const auto messages = messagesOf(input);
    scriptBus(input.subspan(std::min(messages.size() + 1, size)));
    const auto vorlan = newController();
    readStartParams(*vorlan);
    requests(*vorlan, messages);
    return 0;
}
