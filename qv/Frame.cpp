#include "qv/Frame.h"

#include "qv/Cobs.h"
#include "qv/Crc.h"

#include <algorithm>

namespace qv {

namespace {

constexpr std::size_t kCrcSize = 2;
constexpr std::size_t kFrameMin = 1 + 1 + kCrcSize;
constexpr std::size_t kPendingMax = 64 * 1024;

/// The n for which n + n / 254 + 1 is `wireSize`.
std::size_t lengthFromWire(std::size_t wireSize)
{
    return wireSize - 1 - (wireSize - 1) / 255;
}

void dropFiller(Bytes& frame, std::size_t wireSize)
{
    const auto length = lengthFromWire(wireSize);
    const auto isZero = [](std::uint8_t byte) { return byte == 0; };
    if (frame.size() > length &&
        std::all_of(frame.begin() + static_cast<std::ptrdiff_t>(length), frame.end(), isZero)) {
        frame.resize(length);
    }
}

} // namespace

bool tParsedFrame::isResetFrame() const
{
    return ok() && hasResetFlag() && payload.size() == 1 && payload[0] == 0;
}

Bytes buildFrame(std::uint8_t header, ByteView payload)
{
    Bytes frame;
    frame.reserve(1 + payload.size() + kCrcSize);
    frame.push_back(header);
    frame.insert(frame.end(), payload.begin(), payload.end());
    const auto crc = crc16(frame);
    frame.push_back(static_cast<std::uint8_t>(crc >> 8));
    frame.push_back(static_cast<std::uint8_t>(crc & 0xFF));
    return frame;
}

Bytes toWire(ByteView frame)
{
    auto wire = cobsEncode(frame);
    wire.push_back(kDelimiter);
    return wire;
}

tParsedFrame parseWire(ByteView wire)
{
    tParsedFrame parsed;
    auto decoded = cobsDecode(wire);
    if (!decoded) {
        parsed.fault = FrameFaultE::eBadCobs;
        return parsed;
    }
    dropFiller(*decoded, wire.size());
    parsed.bytes = std::move(*decoded);
    const auto& bytes = parsed.bytes;
    parsed.header = bytes.empty() ? std::uint8_t{0} : bytes[0];
    if (bytes.size() < kFrameMin) {
        parsed.fault = FrameFaultE::eTooShort;
        return parsed;
    }
    const auto body = ByteView(bytes).first(bytes.size() - kCrcSize);
    parsed.payload.assign(body.begin() + 1, body.end());
    parsed.crcGiven = static_cast<std::uint16_t>(bytes[body.size()] << 8 | bytes[body.size() + 1]);
    parsed.crcComputed = crc16(body);
    if (parsed.crcGiven != parsed.crcComputed) {
        parsed.fault = FrameFaultE::eBadCrc;
    }
    return parsed;
}

void FrameCutter::feed(ByteView bytes)
{
    for (const auto byte : bytes) {
        if (byte == kDelimiter) {
            if (mFlooded) {
                dropPending();
            } else {
                mBytes.push_back(byte);
                mEnd = mBytes.size();
            }
            mFlooded = false;
        } else if (pending() < kPendingMax) {
            mBytes.push_back(byte);
        } else {
            mFlooded = true;
        }
    }
}

Bytes FrameCutter::dropPending()
{
    const auto begin = mBytes.begin() + static_cast<std::ptrdiff_t>(mEnd);
    Bytes pending(begin, mBytes.end());
    mBytes.erase(begin, mBytes.end());
    return pending;
}

std::optional<Bytes> FrameCutter::next()
{
    while (mEnd != 0) {
        const auto delimiter = std::find(mBytes.begin(), mBytes.end(), kDelimiter);
        const auto size = delimiter - mBytes.begin();
        Bytes frame(mBytes.begin(), delimiter);
        mBytes.erase(mBytes.begin(), delimiter + 1);
        mEnd -= static_cast<std::size_t>(size) + 1;
        if (!frame.empty()) {
            return frame;
        }
    }
    return std::nullopt;
}

} // namespace qv
