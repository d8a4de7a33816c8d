// Any frame through the encoder and both decoders, and any bytes through both CRCs.

#include "fuzz/Check.h"
#include "link/SDataLink.h"
#include "qv/Cobs.h"
#include "qv/Crc.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const SDataLink link;
    const std::vector<unsigned char> frame(data, data + size);
    check(link.calcCrc16(&frame) == qv::crc16({data, size}), "both ends compute the same CRC");

    std::vector<unsigned char> encoded(size + size / 254 + 1);
    const auto length = static_cast<std::size_t>(SFrame::encodeSFrame(&frame, encoded.data()));
    check(length <= encoded.size(), "the encoding fits into its worst case");
    encoded.resize(length);
    check(std::ranges::find(encoded, 0) == encoded.end(), "no zero byte inside a frame");
    check(encoded == qv::cobsEncode({data, size}), "both ends encode alike");
    check(qv::cobsDecode(encoded) == frame, "QV's end gets the frame back");
    SFrame::decodeSFrame(encoded);
    check(encoded == frame, "the daemon's end gets the frame back");
    return 0;
}
