#include "link/SDataLink.h"
#include "link/SManager.h"
#include "qv/Frame.h"
#include "tests/line/PtyLine.h"
#include "tests/qv/Hex.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <thread>

namespace {

using namespace std::chrono_literals;
using tBytes = PtyLine::tBytes;

constexpr unsigned int kReset = 0x10; ///< reset flag of the header
const tBytes kStop = hex("FF FF");    ///< the request that ends the daemon's side

tBytes operator+(tBytes left, const tBytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// A request as QV sends it.
tBytes wireFrame(unsigned int header, const tBytes& payload)
{
    return qv::toWire(qv::buildFrame(static_cast<unsigned char>(header), payload));
}

/// A reply as the daemon sends it: a long one is filled up to the length of its worst case.
tBytes wireReply(unsigned int header, const tBytes& payload)
{
    const auto size = 1 + payload.size() + 2;
    auto wire = wireFrame(header, payload);
    wire.pop_back();
    wire.resize(size + size / 254 + 1, 0x01);
    wire.push_back(0x00);
    return wire;
}

/// The whole link room on a pseudo terminal, with a daemon's side that answers each request by an echo of it. The test
/// is QV.
class DataLinkLine : public testing::Test
{
protected:
    void SetUp() override
    {
        SManager::mgr()->mDevice = line.device();
        SManager::mgr()->mBaudrate = 4000000; // 17.5 us of settling
        ASSERT_TRUE(mLink.init());
        mDaemon = std::thread([this] {
            prctl(PR_SET_TIMERSLACK, 1UL); // as the daemon does
            for (tBytes msg; msg != kStop && (msg.clear(), mLink.read(msg));) {
                ++mServed;
                mLink.reply(std::make_unique<tBytes>(msg));
            }
            mEnded = true;
        });
    }
    void TearDown() override
    {
        testing::internal::CaptureStderr();
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        while (!mEnded && std::chrono::steady_clock::now() < deadline) {
            line.send(wireFrame(kReset, kStop));
            receiveFrame(50ms);
        }
        testing::internal::GetCapturedStderr();
        ASSERT_TRUE(mEnded) << "the daemon's side hangs";
        mDaemon.join();
    }

    /// The next frame on the line, delimiter included; nothing when it does not come in time.
    tBytes receiveFrame(std::chrono::milliseconds time = 10s)
    {
        for (;;) {
            const auto end = std::find(mReceived.begin(), mReceived.end(), 0);
            if (end != mReceived.end()) {
                tBytes frame(mReceived.begin(), end + 1);
                mReceived.erase(mReceived.begin(), end + 1);
                return frame;
            }
            const auto more = line.receive(4096, time);
            if (more.empty())
                return {};
            mReceived.insert(mReceived.end(), more.begin(), more.end());
        }
    }

    /// QV's way out of whatever has gone before: the request is repeated until its answer comes.
    void expectServed()
    {
        const tBytes token = hex("01 20") + tBytes{static_cast<unsigned char>(++mToken)};
        const auto expected = wireReply(1, token);
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (std::chrono::steady_clock::now() < deadline) {
            ASSERT_TRUE(line.send(wireFrame(kReset, token)));
            for (tBytes frame; !(frame = receiveFrame(50ms)).empty();) {
                if (frame == expected)
                    return;
            }
        }
        FAIL() << "no answer any more";
    }

    /// Waits until so many requests were delivered.
    bool delivers(unsigned int requests) const
    {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (mServed < requests && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(1ms);
        return mServed == requests;
    }

    PtyLine line;
    SDataLink mLink;
    std::thread mDaemon;
    std::atomic<unsigned int> mServed = 0;
    std::atomic<bool> mEnded = false;
    tBytes mReceived;
    unsigned int mToken = 0;
};

/// Bad streams: whatever is complained of goes to standard error, which is of no interest here.
class DataLinkBadLine : public DataLinkLine
{
protected:
    void SetUp() override
    {
        testing::internal::CaptureStderr();
        DataLinkLine::SetUp();
    }
    void TearDown() override
    {
        testing::internal::GetCapturedStderr();
        DataLinkLine::TearDown();
    }
};

TEST_F(DataLinkLine, AnswersFortyRequests)
{
    for (unsigned int i = 0; i < 40; ++i) {
        const tBytes payload = {0x00, static_cast<unsigned char>(i)};
        ASSERT_TRUE(line.send(wireFrame(i == 0 ? kReset : i % 16, payload)));
        ASSERT_EQ(receiveFrame(), wireReply((i + 1) % 16, payload)) << i;
    }
    EXPECT_EQ(mServed, 40U);
}

TEST_F(DataLinkLine, AnswersARequestByteByByte)
{
    const auto frame = wireFrame(kReset, hex("02 09"));
    for (const auto byte : frame)
        ASSERT_TRUE(line.send({byte}));
    EXPECT_EQ(receiveFrame(), wireReply(1, hex("02 09")));
}

TEST_F(DataLinkLine, AnswersARequestSplitAtEveryPlace)
{
    const tBytes payload = hex("02 00 FF 09");
    for (std::size_t split = 1; split < wireFrame(0, payload).size(); ++split) {
        const auto frame = wireFrame(kReset | split % 16, payload);
        const auto border = frame.begin() + static_cast<std::ptrdiff_t>(split);
        ASSERT_TRUE(line.send({frame.begin(), border}));
        ASSERT_TRUE(line.send({border, frame.end()}));
        EXPECT_EQ(receiveFrame(), wireReply((split + 1) % 16, payload)) << split;
    }
}

TEST_F(DataLinkLine, AnswersMessagesOfEveryBorderLength)
{
    for (const std::size_t size : {2U, 3U, 60U, 61U, 62U, 124U, 250U, 251U, 252U, 253U, 505U, 506U, 1000U, 4000U}) {
        const tBytes payload(size, 0x00);
        ASSERT_TRUE(line.send(wireFrame(kReset, payload)));
        EXPECT_EQ(receiveFrame(), wireReply(1, payload)) << size;
    }
}

TEST_F(DataLinkLine, FillsUpALongReplyWithOnes)
{
    const tBytes payload(300, 0x44);
    ASSERT_TRUE(line.send(wireFrame(kReset, payload)));
    const auto wire = receiveFrame();
    ASSERT_EQ(wire.size(), 306U); // 303 bytes: two groups, so one byte of filling
    EXPECT_EQ(wire, wireReply(1, payload));
}

TEST_F(DataLinkLine, RepeatsItsReplyWithoutServingTwice)
{
    ASSERT_TRUE(line.send(wireFrame(kReset, hex("02 09"))));
    ASSERT_EQ(receiveFrame(), wireReply(1, hex("02 09")));
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(line.send(wireFrame(0, hex("02 09"))));
        ASSERT_EQ(receiveFrame(), wireReply(1, hex("02 09")));
    }
    EXPECT_EQ(mServed, 1U);
}

/// QV takes the long reply so slowly that it is never given up.
TEST_F(DataLinkLine, DeliversTheNextRequestWhileTheReplyGoesOut)
{
    const tBytes payload(100'000, 0x44);
    ASSERT_TRUE(line.send(wireFrame(kReset, payload)));
    ASSERT_TRUE(delivers(1));
    ASSERT_TRUE(line.send(wireFrame(1, hex("02 09"))));
    std::size_t taken = 0;
    for (; mServed < 2 && taken < payload.size() / 2; std::this_thread::sleep_for(100ms))
        taken += line.receive(4096, 0ms).size();
    EXPECT_EQ(mServed, 2U);
    expectServed();
}

TEST_F(DataLinkLine, ResetsAPeerThatIsOutOfStep)
{
    ASSERT_TRUE(line.send(wireFrame(0, hex("02 09"))));
    EXPECT_EQ(receiveFrame(), hex("02 11 03 2D 4D 00"));
    expectServed();
}

TEST_F(DataLinkBadLine, ServesAfterRandomBytes)
{
    const auto seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 20; ++round) {
        tBytes bytes(1 + random() % 300);
        const unsigned int kinds = 1U << (1 + random() % 8);
        for (auto& byte : bytes)
            byte = static_cast<unsigned char>(random() % kinds);
        ASSERT_TRUE(line.send(bytes));
        expectServed();
    }
}

TEST_F(DataLinkBadLine, ServesAfterAFrameThatIsCutAtAnyPlace)
{
    const auto frame = wireFrame(kReset, hex("02 00 FF 09"));
    for (std::size_t size = 1; size < frame.size(); ++size) {
        ASSERT_TRUE(line.send({frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(size)}));
        expectServed();
    }
}

TEST_F(DataLinkBadLine, ServesAfterAnOversizedFrame)
{
    const tBytes payload(100'000, 0x00); // the echo is as long: QV reads it while it sends
    const auto frame = wireFrame(kReset, payload);
    ASSERT_TRUE(line.send(frame));
    EXPECT_EQ(receiveFrame(), wireReply(1, payload));
    expectServed();
}

TEST_F(DataLinkBadLine, ServesAfterAFlood)
{
    ASSERT_TRUE(line.send(tBytes(std::size_t{1} << 18U, 0x33)));
    expectServed();
}

TEST_F(DataLinkBadLine, ServesAfterAFloodOfDelimiters)
{
    ASSERT_TRUE(line.send(tBytes(2000, 0x00)));
    expectServed();
}

TEST_F(DataLinkBadLine, ServesAfterTwoFramesInOneChunk)
{
    ASSERT_TRUE(line.send(wireFrame(kReset, hex("02 09")) + wireFrame(1, hex("02 0A"))));
    expectServed();
}

TEST_F(DataLinkBadLine, ServesAfterEveryFlippedBit)
{
    const auto frame = wireFrame(kReset, hex("02 09"));
    for (std::size_t bit = 0; bit < frame.size() * 8; ++bit) {
        auto bad = frame;
        bad[bit / 8] = static_cast<unsigned char>(bad[bit / 8] ^ (1U << bit % 8));
        ASSERT_TRUE(line.send(bad));
        receiveFrame(bit / 8 + 1 == frame.size() ? 0ms : 50ms);
        expectServed();
    }
}

} // namespace
