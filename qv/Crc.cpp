#include "qv/Crc.h"

namespace qv {

std::uint16_t crc16(ByteView data)
{
    unsigned crc = 0xFFFF;
    for (const auto byte : data) {
        for (unsigned bit = 0x80; bit != 0; bit >>= 1) {
            const bool out = ((crc & 0x8000U) != 0) != ((byte & bit) != 0);
            crc = (crc << 1) & 0xFFFFU;
            if (out) {
                crc ^= 0x1021U;
            }
        }
    }
    return static_cast<std::uint16_t>(crc);
}

} // namespace qv
