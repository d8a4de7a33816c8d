// Any bytes into the frame decoder, next to the one of QV's end.

#include "fuzz/Check.h"
#include "link/SFrame.h"
#include "qv/Cobs.h"

#include <cstddef>
#include <cstdint>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::vector<unsigned char> buffer(data, data + size);
    const unsigned int length = SFrame::decodeSFrame(buffer);
    check(length == buffer.size(), "the length returned is the buffer's");
    check(length <= size, "decoding never makes more of it");
    if (const auto reference = qv::cobsDecode({data, size}))
        check(buffer == *reference, "both ends decode a well-formed frame alike");
    return 0;
}
