#include "link/SDataLink.h"
#include "link/SFrame.h"
#include "link/SManager.h"
#include "link/SerialIf.h"
#include "qv/Cobs.h"
#include "qv/Crc.h"
#include "qv/Frame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

constexpr std::size_t kPayloadMax = 2000;
constexpr unsigned kSeed = 20240506;

/// Random bytes of one of four kinds: any, mostly zeros, no zeros, zeros alone.
qv::Bytes payloadOf(std::mt19937& random, std::size_t size, unsigned kind)
{
    qv::Bytes bytes(size);
    for (auto& byte : bytes) {
        const auto value = static_cast<std::uint8_t>(random());
        byte = kind == 0   ? value
               : kind == 1 ? static_cast<std::uint8_t>(value % 4 == 0 ? value : 0)
               : kind == 2 ? value | 1
                           : 0;
    }
    return bytes;
}

/// A transport that gives the bytes laid down and keeps those of the last write.
class MemorySerial : public SerialIf
{
public:
    int getBackendType() override { return eBackendSerial; }
    int init(tInitParams*) override { return 0; }
    bool isOpen() const override { return true; }
    int readBlocking(unsigned char* buf, unsigned int len, int) override
    {
        const auto count = std::min<std::size_t>(len, mToRead.size());
        std::copy_n(mToRead.begin(), count, buf);
        mToRead.erase(mToRead.begin(), mToRead.begin() + static_cast<std::ptrdiff_t>(count));
        return static_cast<int>(count);
    }
    int writeBlocking(const unsigned char* buf, unsigned int len, int) override
    {
        mWritten.assign(buf, buf + len);
        return static_cast<int>(len);
    }

    qv::Bytes mToRead;
    qv::Bytes mWritten;
};

/// The daemon's codec on such a transport, and QV's at the other end.
class CodecTest : public testing::Test
{
protected:
    CodecTest()
    {
        SManager::registerSerialBackend(mSerial);
        EXPECT_TRUE(mFrame.init());
    }

    MemorySerial* mSerial = new MemorySerial; ///< the registry owns it
    SFrame mFrame;
    SDataLink mLink;
    std::mt19937 mRandom{kSeed};
};

TEST_F(CodecTest, TheDaemonReadsWhatQvSends)
{
    for (std::size_t size = 0; size <= kPayloadMax; ++size) {
        for (unsigned kind = 0; kind < 4; ++kind) {
            const auto payload = payloadOf(mRandom, size, kind);
            const auto header = static_cast<std::uint8_t>(mRandom() % 32);
            mSerial->mToRead = qv::toWire(qv::buildFrame(header, payload));
            std::vector<unsigned char> read;
            ASSERT_TRUE(mFrame.readSFrame(read)) << "payload of " << size << ", kind " << kind << ", seed " << kSeed;
            ASSERT_TRUE(mLink.checkRecvCrc(read)) << "payload of " << size << ", kind " << kind << ", seed " << kSeed;
            ASSERT_EQ(read.front(), header);
            ASSERT_EQ(qv::Bytes(read.begin() + 1, read.end()), payload);
        }
    }
}

TEST_F(CodecTest, QvReadsWhatTheDaemonSends)
{
    for (std::size_t size = 1; size <= kPayloadMax; ++size) {
        for (unsigned kind = 0; kind < 4; ++kind) {
            const auto payload = payloadOf(mRandom, size, kind);
            std::vector<unsigned char> frame{static_cast<unsigned char>(mRandom() % 32)};
            frame.insert(frame.end(), payload.begin(), payload.end());
            const auto header = frame[0];
            const auto crc = mLink.calcCrc16(&frame);
            frame.push_back(static_cast<unsigned char>(crc >> 8));
            frame.push_back(static_cast<unsigned char>(crc & 0xFF));
            ASSERT_TRUE(mFrame.writeSFrame(&frame));
            qv::FrameCutter cutter;
            cutter.feed(mSerial->mWritten);
            const auto wire = cutter.next();
            ASSERT_TRUE(wire);
            const auto parsed = qv::parseWire(*wire);
            ASSERT_TRUE(parsed.ok()) << "payload of " << size << ", kind " << kind << ", seed " << kSeed;
            ASSERT_EQ(parsed.header, header);
            ASSERT_EQ(parsed.payload, payload) << "payload of " << size << ", kind " << kind << ", seed " << kSeed;
        }
    }
}

TEST_F(CodecTest, BothComputeTheSameCrc)
{
    for (std::size_t size = 0; size <= kPayloadMax; ++size) {
        const auto data = payloadOf(mRandom, size, 0);
        ASSERT_EQ(mLink.calcCrc16(&data), qv::crc16(data)) << size;
    }
}

TEST_F(CodecTest, BothRefuseAFlippedBit)
{
    const auto frame = qv::buildFrame(0x05, payloadOf(mRandom, 20, 0));
    for (std::size_t bit = 0; bit < 8 * frame.size(); ++bit) {
        auto damaged = frame;
        damaged[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
        EXPECT_EQ(qv::parseWire(qv::cobsEncode(damaged)).fault, qv::FrameFaultE::eBadCrc) << bit;
        std::vector<unsigned char> theirs(damaged.begin(), damaged.end());
        EXPECT_FALSE(mLink.checkRecvCrc(theirs)) << bit;
    }
}

} // namespace
