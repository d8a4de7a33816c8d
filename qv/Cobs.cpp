#include "qv/Cobs.h"

#include <algorithm>

namespace qv {

namespace {
constexpr std::size_t kGroupMax = 254; ///< data bytes behind one code byte at most
}

Bytes cobsEncode(ByteView data)
{
    Bytes out;
    out.reserve(data.size() + data.size() / kGroupMax + 1);
    for (;;) {
        const ByteView group = data.first(std::min(data.size(), kGroupMax));
        const auto zero = std::find(group.begin(), group.end(), std::uint8_t{0});
        const auto taken = static_cast<std::size_t>(zero - group.begin());
        out.push_back(static_cast<std::uint8_t>(taken + 1));
        out.insert(out.end(), group.begin(), zero);
        if (taken == kGroupMax) { // a full group stands for no zero, and needs no group after it
            data = data.subspan(taken);
            if (data.empty()) {
                return out;
            }
        } else if (taken == data.size()) {
            return out;
        } else { // the zero is in the code byte; if it was the last byte, an empty group follows
            data = data.subspan(taken + 1);
        }
    }
}

std::optional<Bytes> cobsDecode(ByteView encoded)
{
    if (encoded.empty() || std::find(encoded.begin(), encoded.end(), std::uint8_t{0}) != encoded.end()) {
        return std::nullopt;
    }
    Bytes out;
    out.reserve(encoded.size());
    while (!encoded.empty()) {
        const std::size_t code = encoded.front();
        if (code > encoded.size()) {
            return std::nullopt;
        }
        out.insert(out.end(), encoded.begin() + 1, encoded.begin() + static_cast<std::ptrdiff_t>(code));
        encoded = encoded.subspan(code);
        if (code <= kGroupMax && !encoded.empty()) {
            out.push_back(0);
        }
    }
    return out;
}

} // namespace qv
