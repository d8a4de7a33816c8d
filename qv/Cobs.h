#pragma once

#include "qv/Bytes.h"

#include <optional>

namespace qv {

/// The shortest COBS encoding of `data`, without the delimiter. Never contains 0x00.
Bytes cobsEncode(ByteView data);

/// Undoes cobsEncode. Nothing when `encoded` is empty, holds a 0x00 or ends inside a group.
std::optional<Bytes> cobsDecode(ByteView encoded);

} // namespace qv
