#pragma once

#include "qv/Bytes.h"

#include <optional>

namespace qv {

inline constexpr std::uint8_t kDelimiter = 0x00;
inline constexpr std::uint8_t kNumberMask = 0x0F;
inline constexpr std::uint8_t kResetFlag = 0x10;

enum class FrameFaultE : std::uint8_t
{
    eNone,
    eBadCobs,  ///< the byte stuffing does not add up
    eTooShort, ///< no room for a header, one payload byte and the CRC
    eBadCrc,
};

/// What was found in one received frame. With a fault, the fields hold as much as could be read.
struct tParsedFrame
{
    FrameFaultE fault = FrameFaultE::eNone;
    std::uint8_t header = 0;
    Bytes payload;
    std::uint16_t crcGiven = 0;
    std::uint16_t crcComputed = 0;
    Bytes bytes; ///< header, payload and CRC as they came out of the byte stuffing

    bool ok() const { return fault == FrameFaultE::eNone; }
    std::uint8_t number() const { return header & kNumberMask; }
    bool hasResetFlag() const { return (header & kResetFlag) != 0; }
    /// The frame with which the daemon says that it is out of step: reset flag and the single payload byte 0x00.
    bool isResetFrame() const;
};

constexpr std::uint8_t nextNumber(std::uint8_t number)
{
    return static_cast<std::uint8_t>((number + 1U) & kNumberMask);
}

/// Header, payload and CRC (high byte first), before byte stuffing.
Bytes buildFrame(std::uint8_t header, ByteView payload);

/// The bytes that go over the line: stuffed frame and delimiter.
Bytes toWire(ByteView frame);

/// Looks into one frame as it came over the line, without its delimiter.
///
/// The daemon sends every frame of n bytes in exactly n + n / 254 + 1 bytes and fills up with 0x01, which decodes to
/// zeros at the end. The length on the line therefore tells n, and such zeros are taken off.
tParsedFrame parseWire(ByteView wire);

/// Cuts the byte stream of the line into frames. Empty frames (two delimiters in a row) are left out. Without a
/// delimiter for 64 KiB the bytes are dropped up to the next one.
class FrameCutter
{
public:
    void feed(ByteView bytes);
    /// The next complete frame without its delimiter.
    std::optional<Bytes> next();
    /// Bytes of a frame that is not complete yet.
    std::size_t pending() const { return mBytes.size() - mEnd; }
    /// Forgets the incomplete frame; gives its bytes.
    Bytes dropPending();

private:
    Bytes mBytes;
    std::size_t mEnd = 0; ///< behind the last delimiter in mBytes
    bool mFlooded = false;
};

} // namespace qv
