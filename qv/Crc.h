#pragma once

#include "qv/Bytes.h"

namespace qv {

/// CRC-16/IBM-3740: polynomial 0x1021, start 0xFFFF, most significant bit first, no final inversion.
/// "123456789" gives 0x29B1, an empty range 0xFFFF.
std::uint16_t crc16(ByteView data);

} // namespace qv
