#include "qv/Frame.h"

#include "qv/Cobs.h"
#include "tests/qv/Hex.h"

#include <gtest/gtest.h>

namespace {

using qv::FrameFaultE;

/// As the daemon sends it: always n + n / 254 + 1 bytes, filled up with 0x01.
qv::Bytes filled(const qv::Bytes& frame)
{
    auto wire = qv::cobsEncode(frame);
    wire.resize(frame.size() + frame.size() / 254 + 1, 0x01);
    return wire;
}

TEST(Frame, BuildsGoldenFrames)
{
    EXPECT_EQ(qv::buildFrame(0x10, hex("00")), hex("10 00 1E 7C"));
    EXPECT_EQ(qv::buildFrame(0x11, hex("00")), hex("11 00 2D 4D"));
    EXPECT_EQ(qv::toWire(hex("11 00 2D 4D")), hex("02 11 03 2D 4D 00"));
}

TEST(Frame, ReadsEachField)
{
    const auto frame = qv::parseWire(hex("02 11 03 2D 4D"));
    EXPECT_TRUE(frame.ok());
    EXPECT_TRUE(frame.isResetFrame());
    EXPECT_TRUE(frame.hasResetFlag());
    EXPECT_EQ(frame.number(), 1);
    EXPECT_EQ(frame.payload, hex("00"));
    EXPECT_EQ(frame.crcGiven, 0x2D4D);
    EXPECT_EQ(frame.bytes, hex("11 00 2D 4D"));
}

TEST(Frame, AnEmptyListIsNoResetFrame)
{
    const auto wire = qv::cobsEncode(qv::buildFrame(0x03, hex("00")));
    const auto frame = qv::parseWire(wire);
    EXPECT_TRUE(frame.ok());
    EXPECT_FALSE(frame.isResetFrame());
}

TEST(Frame, ARealReplyWithTheResetFlagIsNoResetFrame)
{
    const auto frame = qv::parseWire(qv::cobsEncode(qv::buildFrame(0x13, hex("00 00"))));
    EXPECT_TRUE(frame.ok());
    EXPECT_TRUE(frame.hasResetFlag());
    EXPECT_FALSE(frame.isResetFrame());
}

TEST(Frame, NamesWhatIsWrong)
{
    EXPECT_EQ(qv::parseWire(hex("05 11")).fault, FrameFaultE::eBadCobs);
    EXPECT_EQ(qv::parseWire({}).fault, FrameFaultE::eBadCobs);
    EXPECT_EQ(qv::parseWire(hex("04 11 22 33")).fault, FrameFaultE::eTooShort);
    EXPECT_EQ(qv::parseWire(hex("02 11 03 2D 4C")).fault, FrameFaultE::eBadCrc);
    EXPECT_EQ(qv::parseWire(hex("02 12 03 2D 4D")).fault, FrameFaultE::eBadCrc);
    EXPECT_EQ(qv::parseWire(hex("02 12 03 2D 4D")).crcComputed, qv::parseWire(hex("02 12 03 2D 4C")).crcComputed);
}

TEST(Frame, TakesFillerOffFramesOfAnyLength)
{
    for (std::size_t size = 1; size <= 2000; ++size) {
        for (const unsigned modulus : {0U, 1U, 2U, 3U, 251U}) { // zeros nowhere, everywhere, often, seldom
            qv::Bytes payload(size);
            for (std::size_t i = 0; i < size; ++i) {
                payload[i] = static_cast<std::uint8_t>(modulus == 0 ? 0x55 : i % modulus);
            }
            const auto built = qv::buildFrame(static_cast<std::uint8_t>(size % 16), payload);
            const auto frame = qv::parseWire(filled(built));
            ASSERT_TRUE(frame.ok()) << size << " " << modulus;
            ASSERT_EQ(frame.payload, payload) << size << " " << modulus;
        }
    }
}

TEST(FrameCutter, CutsAtEachDelimiterHoweverTheBytesCome)
{
    const auto bytes = hex("00 02 11 00 00 03 22 33 00 44");
    for (std::size_t first = 0; first <= bytes.size(); ++first) {
        qv::FrameCutter cutter;
        std::vector<qv::Bytes> frames;
        const auto take = [&](qv::ByteView part) {
            cutter.feed(part);
            while (auto frame = cutter.next()) {
                frames.push_back(*frame);
            }
        };
        take(qv::ByteView(bytes).first(first));
        take(qv::ByteView(bytes).subspan(first));
        ASSERT_EQ(frames, (std::vector<qv::Bytes>{hex("02 11"), hex("03 22 33")})) << first;
        ASSERT_EQ(cutter.pending(), 1U);
    }
}

TEST(FrameCutter, ForgetsAnIncompleteFrame)
{
    qv::FrameCutter cutter;
    cutter.feed(hex("02 11"));
    cutter.dropPending();
    cutter.feed(hex("03 22 33 00"));
    EXPECT_EQ(cutter.next(), hex("03 22 33"));
    EXPECT_FALSE(cutter.next());
}

TEST(FrameCutter, DropsAFlood)
{
    qv::FrameCutter cutter;
    cutter.feed(qv::Bytes(1'000'000, 0x55));
    EXPECT_LE(cutter.pending(), 64U * 1024U);
    cutter.feed(hex("00 02 11 00"));
    EXPECT_EQ(cutter.next(), hex("02 11"));
    EXPECT_FALSE(cutter.next());
}

} // namespace
