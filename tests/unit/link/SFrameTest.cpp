#include "link/SFrame.h"

#include "link/SManager.h"
#include "link/SerialException.h"
#include "qv/Cobs.h"
#include "qv/Frame.h"
#include "tests/qv/Hex.h"
#include "tests/support/ScriptedSerial.h"
#include "tests/unit/link/SystemScript.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>

namespace {

using tBytes = std::vector<unsigned char>;

constexpr std::size_t kBorders[] = {0, 1, 2, 4, 5, 63, 64, 65, 252, 253, 254, 255, 256, 507, 508, 509, 510, 762, 763};

tBytes operator+(tBytes left, const tBytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

tBytes encode(const tBytes& frame)
{
    constexpr unsigned char kUntouched = 0xEE;
    tBytes out(frame.size() + frame.size() / 254 + 1 + 16, kUntouched);
    const auto count = static_cast<std::size_t>(SFrame::encodeSFrame(&frame, out.data()));
    EXPECT_LE(count, frame.size() + frame.size() / 254 + 1);
    EXPECT_TRUE(std::all_of(out.begin() + static_cast<std::ptrdiff_t>(count), out.end(),
                            [](unsigned char byte) { return byte == kUntouched; }))
        << "wrote beyond the " << count << " bytes that it returned";
    out.resize(count);
    return out;
}

tBytes decode(tBytes wire)
{
    const auto length = SFrame::decodeSFrame(wire);
    EXPECT_EQ(length, wire.size());
    return wire;
}

/// What decoding is to give for any bytes, written as a reader with an output of its own.
tBytes expectedDecoding(const tBytes& wire)
{
    tBytes out;
    unsigned int before = 0xFF;
    for (std::size_t at = 0; at < wire.size();) {
        const unsigned int code = wire[at++];
        if (before != 0xFF)
            out.push_back(0x00);
        if (code == 0)
            return out;
        for (unsigned int k = 1; k < code && at < wire.size(); ++k)
            out.push_back(wire[at++]);
        before = code;
    }
    return out;
}

/// Frames of `size` bytes of different kinds: without a zero, all zeros, a zero at each border of a group, at random.
std::vector<tBytes> framesOf(std::size_t size, std::mt19937& random)
{
    std::vector<tBytes> frames{tBytes(size, 0x11), tBytes(size, 0x00), tBytes(size, 0xFF)};
    for (const std::size_t at : {0U, 1U, 252U, 253U, 254U, 255U, 507U, 508U, 509U}) {
        if (at < size) {
            frames.emplace_back(size, 0x22)[at] = 0;
            frames.emplace_back(size, 0x33)[size - 1 - at] = 0;
        }
    }
    for (const unsigned int kinds : {2U, 16U, 256U}) {
        auto& frame = frames.emplace_back(size);
        for (auto& byte : frame)
            byte = static_cast<unsigned char>(random() % kinds);
    }
    return frames;
}

struct tGolden
{
    const char* name;
    tBytes frame;
    tBytes encoded;
};

/// Each code byte is the distance to the next zero of the frame, which it replaces.
std::vector<tGolden> goldenFrames()
{
    const auto ones = [](std::size_t count) { return tBytes(count, 0x11); };
    return {
        {"nothing", {}, hex("01")},
        {"one zero", hex("00"), hex("01 01")},
        {"two zeros", hex("00 00"), hex("01 01 01")},
        {"one byte", hex("5A"), hex("02 5A")},
        {"a zero inside", hex("05 00 11 22"), hex("02 05  03 11 22")},
        {"a zero in front", hex("00 11 22"), hex("01  03 11 22")},
        {"a zero at the end", hex("11 22 00"), hex("03 11 22  01")},
        {"zeros around", hex("00 11 00"), hex("01  02 11  01")},
        {"253 bytes", ones(253), hex("FE") + ones(253)},
        {"253 bytes and a zero", ones(253) + hex("00"), hex("FE") + ones(253) + hex("01")},
        {"one full group", ones(254), hex("FF") + ones(254)},
        {"one full group and a zero", ones(254) + hex("00"), hex("FF") + ones(254) + hex("01 01")},
        {"one full group and a byte", ones(255), hex("FF") + ones(254) + hex("02 11")},
        {"two full groups", ones(508), hex("FF") + ones(254) + hex("FF") + ones(254)},
        {"two full groups and a byte", ones(509), hex("FF") + ones(254) + hex("FF") + ones(254) + hex("02 11")},
        {"a zero, then a full group", hex("00") + ones(254), hex("01  FF") + ones(254)},
    };
}

TEST(SFrameEncode, WritesTheGoldenFrames)
{
    for (const auto& golden : goldenFrames())
        EXPECT_EQ(encode(golden.frame), golden.encoded) << golden.name;
}

TEST(SFrameEncode, WritesWhatTheOtherEndWritesAtEveryBorder)
{
    std::mt19937 random(1);
    for (const auto size : kBorders) {
        for (const auto& frame : framesOf(size, random)) {
            const auto encoded = encode(frame);
            EXPECT_EQ(encoded, qv::cobsEncode(frame)) << size;
            EXPECT_EQ(std::count(encoded.begin(), encoded.end(), 0), 0) << size;
        }
    }
}

TEST(SFrameDecode, ReadsTheGoldenFrames)
{
    for (const auto& golden : goldenFrames())
        EXPECT_EQ(decode(golden.encoded), golden.frame) << golden.name;
}

TEST(SFrameDecode, UndoesTheEncodingAtEveryBorder)
{
    std::mt19937 random(2);
    for (const auto size : kBorders) {
        for (const auto& frame : framesOf(size, random))
            EXPECT_EQ(decode(encode(frame)), frame) << size;
    }
}

TEST(SFrameDecode, OfNothingIsNothing)
{
    EXPECT_EQ(decode({}), tBytes{});
}

TEST(SFrameDecode, GivesWhatIsThereOfAGroupThatIsCutShort)
{
    EXPECT_EQ(decode(hex("05")), tBytes{});
    EXPECT_EQ(decode(hex("05 11 22")), hex("11 22"));
    EXPECT_EQ(decode(hex("02 11 FF 22")), hex("11 00 22"));
}

TEST(SFrameDecode, EndsAtAZeroCodeByte)
{
    EXPECT_EQ(decode(hex("00")), tBytes{});
    EXPECT_EQ(decode(hex("00 02 11")), tBytes{});
    EXPECT_EQ(decode(hex("02 11 00 02 22")), hex("11 00")); // the zero that ended the group before it is kept
    EXPECT_EQ(decode(hex("FF") + tBytes(254, 0x11) + hex("00 02 22")), tBytes(254, 0x11));
}

TEST(SFrameDecode, TakesAZeroInsideAGroupAsData)
{
    EXPECT_EQ(decode(hex("04 11 00 22")), hex("11 00 22"));
}

TEST(SFrameDecode, TakesAnyBytes)
{
    const auto seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 20'000; ++round) {
        tBytes wire(random() % (round % 100 == 0 ? 2000 : 20));
        const unsigned int kinds = 1U << (1 + random() % 8);
        for (auto& byte : wire)
            byte = static_cast<unsigned char>(random() % 20 == 0 ? 0xFF : random() % kinds);
        ASSERT_EQ(decode(wire), expectedDecoding(wire)) << testing::PrintToString(wire);
    }
}

/// The codec on a scripted line.
class SFrameTest : public testing::Test
{
protected:
    SFrameTest()
    {
        SManager::registerSerialBackend(mpLine);
        mFrame.init();
    }
    ~SFrameTest() override { SManager::registerSerialBackend(nullptr); }

    /// Reads on until a frame is complete or the script ends; counts the reads that timed out.
    bool gather(tBytes& out)
    {
        while (!mFrame.readSFrame(out)) {
            if (mFrame.isBroken())
                return false;
            ++mTimeOuts;
        }
        return true;
    }

    void expectFrame(const tBytes& frame)
    {
        tBytes out;
        EXPECT_TRUE(mFrame.readSFrame(out));
        EXPECT_EQ(out, frame);
    }

    void expectFailedRead(const std::string& error, bool broken)
    {
        tBytes out;
        EXPECT_FALSE(mFrame.readSFrame(out));
        EXPECT_EQ(mFrame.lastError(), error);
        EXPECT_EQ(mFrame.isBroken(), broken);
    }

    void expectFailedWrite(const std::string& error, bool broken)
    {
        const tBytes frame = hex("11");
        EXPECT_FALSE(mFrame.writeSFrame(&frame));
        EXPECT_EQ(mFrame.lastError(), error);
        EXPECT_EQ(mFrame.isBroken(), broken);
    }

    ScriptedSerial* mpLine = new ScriptedSerial;
    SFrame mFrame;
    int mTimeOuts = 0;
};

using SFrameInit = SFrameTest;
using SFrameWrite = SFrameTest;
using SFrameRead = SFrameTest;

TEST_F(SFrameInit, OpensTheRegisteredBackend)
{
    SFrame frame;
    EXPECT_TRUE(frame.init());
    EXPECT_EQ(mpLine->inits().size(), 2U); // the fixture's and this one
    EXPECT_FALSE(frame.isBroken());
    EXPECT_EQ(frame.lastError(), "");
}

TEST_F(SFrameInit, IsSatisfiedWithABackendThatRefusesItsSettings)
{
    mpLine->refuseInit(-1);
    SFrame frame;
    EXPECT_TRUE(frame.init());
}

TEST_F(SFrameInit, FailsWhenTheBackendCannotBeOpened)
{
    mpLine->throwOnInit(SerialException("nothing there"));
    SFrame frame;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(frame.init());
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(frame.isBroken()); // the first read tells
    EXPECT_TRUE(mpLine->reads().empty());
}

TEST_F(SFrameInit, FailsWithoutABackend)
{
    SManager::registerSerialBackend(nullptr);
    SFrame frame;
    EXPECT_FALSE(frame.init());
}

TEST_F(SFrameWrite, PutsAFrameOnTheLineAsDescribed)
{
    const tBytes frame = {
        0x05,       // header: number 5
        0x00,       // payload
        0x11, 0x22, // CRC
    };
    ASSERT_TRUE(mFrame.writeSFrame(&frame));
    const tBytes wire = {
        0x02, 0x05,       // the group that the zero ends
        0x03, 0x11, 0x22, // the last group
        0x00,             // delimiter
    };
    EXPECT_EQ(mpLine->awaitWrites(1), std::vector<tBytes>{wire});
}

TEST_F(SFrameWrite, GivesTheLineOneSecondPerPoll)
{
    const tBytes frame = hex("11 22");
    ASSERT_TRUE(mFrame.writeSFrame(&frame));
    const auto writes = mpLine->writes();
    ASSERT_EQ(writes.size(), 1U);
    EXPECT_EQ(writes[0].len, 4U);
    EXPECT_EQ(writes[0].timeoutMs, 1000);
}

TEST_F(SFrameWrite, SendsAShortFrameWithoutZerosAsOneGroup)
{
    for (const std::size_t size : {1U, 4U, 63U, 253U}) {
        const tBytes frame(size, 0x11);
        ASSERT_TRUE(mFrame.writeSFrame(&frame));
        EXPECT_EQ(mpLine->awaitWrites(0).back(), tBytes(1, static_cast<unsigned char>(size + 1)) + frame + hex("00"));
    }
}

TEST_F(SFrameWrite, SendsTheSameLengthForEveryFrameOfOneLengthAndFillsUpWithOnes)
{
    std::mt19937 random(3);
    for (const auto size : kBorders) {
        for (const auto& frame : framesOf(size, random)) {
            ASSERT_TRUE(mFrame.writeSFrame(&frame));
            auto expected = qv::cobsEncode(frame);
            expected.resize(size + size / 254 + 1, 0x01);
            expected.push_back(0x00);
            ASSERT_EQ(mpLine->awaitWrites(0).back(), expected) << size;
        }
    }
}

TEST_F(SFrameWrite, SendsFillersInALongFrameThatIsEncodedShorter)
{
    const tBytes frame(254, 0x11);
    ASSERT_TRUE(mFrame.writeSFrame(&frame));
    EXPECT_EQ(mpLine->awaitWrites(1)[0], hex("FF") + frame + hex("01") + hex("00"));
}

TEST_F(SFrameWrite, FailsWhenTheLineDoesNotTakeAllBytes)
{
    const tBytes frame = hex("11 22");
    mpLine->takeOnly(3);
    EXPECT_FALSE(mFrame.writeSFrame(&frame));
    EXPECT_FALSE(mFrame.isBroken()); // a time-out is no failure
    EXPECT_EQ(mFrame.lastError(), "");
    mpLine->takeOnly(4);
    EXPECT_TRUE(mFrame.writeSFrame(&frame));
}

TEST_F(SFrameWrite, FailsAndKeepsTheLinkWhileThePortIsOpen)
{
    mpLine->throwOnWrite(SerialException("no write today"));
    expectFailedWrite("no write today", false);
}

TEST_F(SFrameWrite, BreaksTheLinkWhenThePortIsClosed)
{
    mpLine->setOpen(false);
    mpLine->throwOnWrite(SerialException("port not opened"));
    expectFailedWrite("port not opened", true);
}

TEST_F(SFrameWrite, BreaksTheLinkOnAFailureOfUnknownKind)
{
    mpLine->throwOnWrite(std::runtime_error("not from the serial layer"));
    expectFailedWrite("unknown", true);
}

TEST_F(SFrameWrite, BreaksTheLinkOnAFailureThatIsNoException)
{
    mpLine->throwOnWrite(42);
    expectFailedWrite("unknown", true);
}

TEST_F(SFrameWrite, WithoutABackendBreaksTheLinkAtOnce)
{
    const SystemScript system;
    SFrame frame;
    const tBytes message = hex("11");
    EXPECT_FALSE(frame.writeSFrame(&message));
    EXPECT_EQ(frame.lastError(), "unknown");
    EXPECT_TRUE(frame.isBroken());
    EXPECT_TRUE(system.mCalls.empty());
}

TEST_F(SFrameRead, AsksForChunksOf64BytesAndWaitsOneSecond)
{
    mpLine->deliver(hex("02 11 00"));
    expectFrame(hex("11"));
    const auto reads = mpLine->reads();
    ASSERT_EQ(reads.size(), 1U);
    EXPECT_EQ(reads[0].len, 64U);
    EXPECT_EQ(reads[0].timeoutMs, 1000);
}

TEST_F(SFrameRead, TakesAnEmptyFrame)
{
    mpLine->deliver(hex("01 00"));
    expectFrame({});
    mpLine->deliver(hex("00"));
    expectFrame({});
}

TEST_F(SFrameRead, TakesFramesOfEveryBorderLength)
{
    std::mt19937 random(4);
    for (const auto size : kBorders) {
        for (const auto& frame : framesOf(size, random)) {
            mpLine->deliver(qv::toWire(frame));
            expectFrame(frame);
        }
    }
}

TEST_F(SFrameRead, TakesAFrameInWhateverPiecesItComes)
{
    for (const auto& golden : goldenFrames()) {
        const auto wire = golden.encoded + hex("00");
        for (const auto byte : wire)
            mpLine->deliver({byte});
        expectFrame(golden.frame);
        for (std::size_t split = 1; split < wire.size(); ++split) {
            const auto border = wire.begin() + static_cast<std::ptrdiff_t>(split);
            mpLine->deliver({wire.begin(), border});
            mpLine->deliver({border, wire.end()});
            expectFrame(golden.frame);
        }
    }
    EXPECT_EQ(mpLine->stepsLeft(), 0U);
}

TEST_F(SFrameRead, CompletesTheFrameWithAChunkThatIsOnlyADelimiter)
{
    mpLine->deliver(hex("03 11 22"));
    mpLine->deliver(hex("00"));
    expectFrame(hex("11 22"));
}

TEST_F(SFrameRead, LooksForTheDelimiterAtTheEndOfAChunkOnly)
{
    mpLine->deliver(hex("02 11 00 02 22"));
    mpLine->deliver(hex("02 33 00"));
    expectFrame(hex("11 00")); // what follows the inner zero is lost with the frame
    EXPECT_EQ(mpLine->stepsLeft(), 0U);
}

TEST_F(SFrameRead, TakesTwoFramesInOneChunkForTheFirstWithAZeroBehindIt)
{
    mpLine->deliver(hex("03 11 22 00") + hex("02 33 00"));
    expectFrame(hex("11 22 00"));
    mpLine->deliver(hex("02 44 00"));
    expectFrame(hex("44"));
}

TEST_F(SFrameRead, TakesTwoFramesInTwoChunksForTwoFrames)
{
    mpLine->deliver(hex("03 11 22 00"));
    mpLine->deliver(hex("02 33 00"));
    expectFrame(hex("11 22"));
    expectFrame(hex("33"));
}

TEST_F(SFrameRead, TakesADelimiterInTheMiddleOfTheStreamWhenItEndsAChunkOf64Bytes)
{
    mpLine->deliver(hex("3F") + tBytes(62, 0x11) + hex("00") + hex("02 22 00"));
    expectFrame(tBytes(62, 0x11));
    expectFrame(hex("22"));
}

TEST_F(SFrameRead, ReturnsAtATimeOutAndLeavesTheLinkAlone)
{
    mpLine->timeOut();
    tBytes out;
    EXPECT_FALSE(mFrame.readSFrame(out));
    EXPECT_TRUE(out.empty());
    EXPECT_FALSE(mFrame.isBroken());
    EXPECT_EQ(mFrame.lastError(), "");
    EXPECT_EQ(mpLine->reads().size(), 1U);
}

TEST_F(SFrameRead, LeavesWhatCameOfAFrameAtATimeOutAndGoesOnWithIt)
{
    mpLine->deliver(hex("03 11"));
    mpLine->timeOut();
    mpLine->timeOut();
    mpLine->deliver(hex("22 00"));
    tBytes out;
    EXPECT_FALSE(mFrame.readSFrame(out));
    EXPECT_EQ(out, hex("03 11"));
    EXPECT_FALSE(mFrame.readSFrame(out));
    EXPECT_EQ(out, hex("03 11"));
    EXPECT_TRUE(mFrame.readSFrame(out));
    EXPECT_EQ(out, hex("11 22"));
    EXPECT_FALSE(mFrame.isBroken());
}

TEST_F(SFrameRead, OutlivesATimeOutAtEveryPositionOfAFrame)
{
    const auto frame = hex("10 00 02 AF BD");
    const auto wire = qv::toWire(frame);
    for (std::size_t split = 1; split < wire.size(); ++split) {
        const auto border = wire.begin() + static_cast<std::ptrdiff_t>(split);
        mpLine->deliver({wire.begin(), border});
        mpLine->timeOut();
        mpLine->deliver({border, wire.end()});
        tBytes out;
        EXPECT_TRUE(gather(out));
        EXPECT_EQ(out, frame) << split;
    }
    EXPECT_EQ(mTimeOuts, static_cast<int>(wire.size()) - 1);
}

TEST_F(SFrameRead, ReadsAgainAfterAReadThatFailed)
{
    mpLine->deliver(hex("03 11"));
    mpLine->failRead();
    mpLine->failRead();
    mpLine->deliver(hex("22 00"));
    expectFrame(hex("11 22"));
    EXPECT_FALSE(mFrame.isBroken());
}

TEST_F(SFrameRead, FailsAndKeepsTheLinkWhileThePortIsOpen)
{
    mpLine->throwOnRead(SerialException("poll failed"));
    mpLine->deliver(hex("02 11 00"));
    expectFailedRead("poll failed", false);
    expectFrame(hex("11"));
    EXPECT_EQ(mFrame.lastError(), "poll failed");
}

TEST_F(SFrameRead, KeepsWhatCameBeforeAFailure)
{
    mpLine->deliver(hex("03 11"));
    mpLine->throwOnRead(SerialException("poll failed"));
    mpLine->deliver(hex("22 00"));
    tBytes out;
    EXPECT_FALSE(mFrame.readSFrame(out));
    EXPECT_TRUE(mFrame.readSFrame(out));
    EXPECT_EQ(out, hex("11 22"));
}

TEST_F(SFrameRead, BreaksTheLinkWhenThePortIsClosed)
{
    mpLine->setOpen(false);
    mpLine->throwOnRead(SerialException("port not opened"));
    expectFailedRead("port not opened", true);
}

TEST_F(SFrameRead, BreaksTheLinkOnAFailureOfUnknownKind)
{
    mpLine->throwOnRead(std::runtime_error("not from the serial layer"));
    expectFailedRead("unknown", true);
}

TEST_F(SFrameRead, BreaksTheLinkOnAFailureThatIsNoException)
{
    mpLine->throwOnRead(42);
    expectFailedRead("unknown", true);
}

TEST_F(SFrameRead, WithoutABackendBreaksTheLinkAfterItsTimeOut)
{
    const SystemScript system;
    SFrame frame;
    tBytes out;
    EXPECT_FALSE(frame.readSFrame(out));
    EXPECT_EQ(frame.lastError(), "unknown");
    EXPECT_TRUE(frame.isBroken());
    EXPECT_EQ(system.mCalls, std::vector<std::string>{"sleep 1000000000 ns"});
}

TEST_F(SFrameRead, DropsWhatAFloodBringsBeyondOneMebibyte)
{
    constexpr std::size_t kMebibyte = 1024 * 1024;
    mpLine->deliver(tBytes(kMebibyte - 1, 0x01));
    mpLine->timeOut();
    mpLine->deliver(tBytes(100'000, 0x01));
    mpLine->timeOut();
    tBytes out;
    EXPECT_FALSE(mFrame.readSFrame(out));
    EXPECT_EQ(out.size(), kMebibyte - 1);
    EXPECT_FALSE(mFrame.readSFrame(out));
    EXPECT_EQ(out.size(), kMebibyte);
    EXPECT_FALSE(mFrame.isBroken());

    mpLine->deliver(hex("02 55 00")); // dropped as well but for the delimiter
    EXPECT_TRUE(mFrame.readSFrame(out));
    EXPECT_EQ(out, tBytes(kMebibyte - 1, 0x00));

    mpLine->deliver(hex("02 11 00"));
    expectFrame(hex("11"));
}

} // namespace
