#include "qv/Peer.h"

#include "tests/qv/Hex.h"

#include <gtest/gtest.h>

#include <deque>

namespace {

using namespace std::chrono_literals;
using qv::OutcomeE;
using qv::TraceE;

/// Answers each frame written with the bytes that were laid down for it; silence is over at once.
class ScriptedLine : public qv::Line
{
public:
    void write(qv::ByteView bytes) override
    {
        mWritten.emplace_back(bytes.begin(), bytes.end());
        if (!mAnswers.empty()) {
            mIncoming.insert(mIncoming.end(), mAnswers.front().begin(), mAnswers.front().end());
            mAnswers.pop_front();
        }
    }
    qv::Bytes read(qv::Clock::time_point deadline) override
    {
        mDeadlines.push_back(deadline);
        return std::exchange(mIncoming, {});
    }

    void answer(std::initializer_list<qv::Bytes> frames)
    {
        auto& bytes = mAnswers.emplace_back();
        for (const auto& frame : frames) {
            bytes.insert(bytes.end(), frame.begin(), frame.end());
        }
    }
    void arrives(const qv::Bytes& bytes) { mIncoming.insert(mIncoming.end(), bytes.begin(), bytes.end()); }

    std::vector<qv::Bytes> mWritten;
    std::vector<qv::Clock::time_point> mDeadlines;

private:
    std::deque<qv::Bytes> mAnswers;
    qv::Bytes mIncoming;
};

qv::Bytes frame(unsigned header, const std::string& payload)
{
    return qv::toWire(qv::buildFrame(static_cast<std::uint8_t>(header), hex(payload)));
}

qv::Bytes broken(unsigned header, const std::string& payload)
{
    auto bytes = qv::buildFrame(static_cast<std::uint8_t>(header), hex(payload));
    bytes.back() ^= 0x01;
    return qv::toWire(bytes);
}

const auto kBeep = hex("02 09");
const auto kReadBrightness = hex("00 09");

class PeerTest : public testing::Test
{
protected:
    /// In step, the next request has number 1.
    void getInStep()
    {
        mLine.answer({frame(1, "00 00")});
        ASSERT_TRUE(mPeer.sync());
        mLine.mWritten.clear();
    }
    /// Headers of the frames written.
    std::string headers() const
    {
        std::string text;
        for (const auto& wire : mLine.mWritten) {
            char header[8];
            std::snprintf(header, sizeof header, "%02X ",
                          qv::parseWire(qv::ByteView(wire).first(wire.size() - 1)).header);
            text += header;
        }
        return text;
    }

    ScriptedLine mLine;
    qv::Peer mPeer{mLine, {.timeout = 10ms, .tries = 4}};
};

TEST_F(PeerTest, GetsInStepWithAHarmlessReadThatCarriesTheResetFlag)
{
    mLine.answer({frame(1, "00 00")});
    mLine.answer({frame(2, "00 50")});
    const auto result = mPeer.request(kReadBrightness);
    EXPECT_EQ(result.outcome, OutcomeE::eDone);
    EXPECT_EQ(result.data, hex("50"));
    ASSERT_EQ(mLine.mWritten.size(), 2U);
    EXPECT_EQ(mLine.mWritten[0], hex("02 10 01 03 8F FF 00"));
    EXPECT_EQ(mLine.mWritten[1], qv::toWire(qv::buildFrame(0x01, kReadBrightness)));
    EXPECT_EQ(mPeer.number(), 2);
}

TEST_F(PeerTest, CountsOnThroughAllNumbers)
{
    getInStep();
    for (unsigned i = 1; i <= 40; ++i) {
        mLine.answer({frame((i + 1) % 16, "02")});
        ASSERT_EQ(mPeer.request(kBeep).outcome, OutcomeE::eDone) << i;
        ASSERT_EQ(mLine.mWritten.size(), i);
    }
}

TEST_F(PeerTest, RepeatsWithTheSameNumberWhenNothingComes)
{
    getInStep();
    mLine.answer({});
    mLine.answer({});
    mLine.answer({frame(2, "02")});
    const auto result = mPeer.request(kBeep);
    EXPECT_EQ(result.outcome, OutcomeE::eDone);
    EXPECT_EQ(headers(), "01 01 01 ");
    EXPECT_EQ(mLine.mWritten[0], mLine.mWritten[2]);
    EXPECT_EQ(result.counts.repeats, 2U);
    EXPECT_EQ(result.counts.timeouts, 2U);
}

TEST_F(PeerTest, GivesUpAfterItsTriesAndGetsInStepBeforeTheNext)
{
    getInStep();
    const auto result = mPeer.request(kBeep);
    EXPECT_EQ(result.outcome, OutcomeE::eNoAnswer);
    EXPECT_TRUE(result.mayBeDone);
    EXPECT_EQ(headers(), "01 01 01 01 ");
    EXPECT_FALSE(mPeer.inStep());
    mLine.answer({frame(2, "00 00")});
    mLine.answer({frame(3, "02")});
    EXPECT_EQ(mPeer.request(kBeep).outcome, OutcomeE::eDone);
    EXPECT_EQ(headers(), "01 01 01 01 11 02 ");
}

TEST_F(PeerTest, AReadWithoutAnswerIsNeverInDoubt)
{
    getInStep();
    const auto result = mPeer.request(hex("00 0A"));
    EXPECT_EQ(result.outcome, OutcomeE::eNoAnswer);
    EXPECT_FALSE(result.mayBeDone);
}

TEST_F(PeerTest, NothingIsInDoubtWhenItNeverGotInStep)
{
    const auto result = mPeer.request(kBeep);
    EXPECT_EQ(result.outcome, OutcomeE::eNoAnswer);
    EXPECT_FALSE(result.mayBeDone);
    EXPECT_EQ(headers(), "10 10 10 10 ");
}

TEST_F(PeerTest, AnEarlierReplyIsNotTakenForTheAwaitedOne)
{
    getInStep();
    mLine.answer({frame(1, "02"), frame(2, "02")});
    const auto result = mPeer.request(kBeep);
    EXPECT_EQ(result.outcome, OutcomeE::eDone);
    EXPECT_EQ(result.counts.stale, 1U);
    EXPECT_EQ(headers(), "01 ") << "the real reply was right behind it";
}

TEST_F(PeerTest, RepeatsWhenTheDaemonResendsItsLastReply)
{
    getInStep();
    mLine.answer({frame(1, "00 00")});
    mLine.answer({frame(2, "02")});
    EXPECT_EQ(mPeer.request(kBeep).outcome, OutcomeE::eDone);
    EXPECT_EQ(headers(), "01 01 ");
}

TEST_F(PeerTest, RepeatsWhenTheReplyIsBroken)
{
    getInStep();
    mLine.answer({broken(2, "02")});
    mLine.answer({frame(2, "02")});
    const auto result = mPeer.request(kBeep);
    EXPECT_EQ(result.outcome, OutcomeE::eDone);
    EXPECT_EQ(result.counts.broken, 1U);
    EXPECT_EQ(headers(), "01 01 ");
}

TEST_F(PeerTest, AnEarlierReplyShortensTheWait)
{
    qv::Peer peer(mLine, {.timeout = 1h, .tries = 1});
    mLine.answer({frame(1, "00 00")});
    ASSERT_TRUE(peer.sync());
    mLine.answer({frame(1, "00 00")});
    const auto before = qv::Clock::now();
    EXPECT_EQ(peer.request(kBeep).outcome, OutcomeE::eNoAnswer);
    ASSERT_GE(mLine.mDeadlines.size(), 2U);
    EXPECT_GT(mLine.mDeadlines[mLine.mDeadlines.size() - 2], before + 50min);
    EXPECT_LT(mLine.mDeadlines.back(), before + 20min);
}

TEST_F(PeerTest, AllowsForTheTimeOnASlowLine)
{
    qv::Peer peer(mLine, {.timeout = 1s, .tries = 1, .baud = 50});
    const auto before = qv::Clock::now();
    EXPECT_FALSE(peer.sync());
    // 7 bytes out, 7 bytes' pause of the daemon, 64 bytes back: 78 times 10 bits at 50 bit/s
    EXPECT_GE(mLine.mDeadlines.back(), before + 1s + 15600ms);
}

TEST_F(PeerTest, AReplyThatStopsHalfwayDoesNotSpoilTheNext)
{
    getInStep();
    auto half = frame(2, "02");
    half.resize(3);
    mLine.answer({half});
    mLine.answer({frame(2, "02")});
    EXPECT_EQ(mPeer.request(kBeep).outcome, OutcomeE::eDone);
    EXPECT_EQ(headers(), "01 01 ");
}

TEST_F(PeerTest, AnotherReadsReplyDoesNotCountAsGettingInStep)
{
    mLine.answer({frame(1, "00 50")});
    mLine.answer({frame(1, "00 00")});
    EXPECT_TRUE(mPeer.sync());
    EXPECT_EQ(headers(), "10 10 ");
}

TEST_F(PeerTest, AReplyToAnotherCommandIsNotTaken)
{
    getInStep();
    mLine.answer({frame(2, "00 50")});
    mLine.answer({frame(2, "02")});
    EXPECT_EQ(mPeer.request(kBeep).outcome, OutcomeE::eDone);
    EXPECT_EQ(headers(), "01 01 ");
}

TEST_F(PeerTest, RefusalIsToldApart)
{
    getInStep();
    mLine.answer({frame(2, "82")});
    EXPECT_EQ(mPeer.request(kBeep).outcome, OutcomeE::eRefused);
    EXPECT_EQ(mPeer.number(), 2) << "a refusal counts on like any reply";
}

TEST_F(PeerTest, ARefusalAfterARepeatIsAskedForAgain)
{
    getInStep();
    mLine.answer({});
    mLine.answer({frame(2, "82")}); // two frames read at once look like one with a byte too many
    mLine.answer({frame(3, "02")});
    EXPECT_EQ(mPeer.request(kBeep).outcome, OutcomeE::eDone);
    EXPECT_EQ(headers(), "01 01 02 ");
}

TEST_F(PeerTest, ARefusalAskedForAgainStaysARefusal)
{
    getInStep();
    mLine.answer({});
    mLine.answer({frame(2, "82")});
    mLine.answer({frame(3, "82")});
    EXPECT_EQ(mPeer.request(kBeep).outcome, OutcomeE::eRefused);
    EXPECT_EQ(headers(), "01 01 02 ");
}

TEST_F(PeerTest, AResetWithTheNextNumberProvesThatNothingWasDone)
{
    mLine.answer({frame(5, "00 00")});
    qv::Peer peer(mLine, {.timeout = 10ms, .tries = 4, .firstNumber = 4});
    ASSERT_TRUE(peer.sync());
    mLine.answer({frame(0x16, "00")}); // request 5: reset frame 6
    mLine.answer({frame(7, "00 00")}); // sync 6
    mLine.answer({frame(8, "02")});    // request 7
    const auto result = peer.request(kBeep);
    EXPECT_EQ(result.outcome, OutcomeE::eDone);
    EXPECT_EQ(result.counts.resets, 1U);
    EXPECT_EQ(headers(), "14 05 16 07 ");
}

TEST_F(PeerTest, AResetThatAFreshDaemonMaySendProvesNothing)
{
    qv::Peer peer(mLine, {.timeout = 10ms, .tries = 4, .firstNumber = 15});
    mLine.answer({frame(0, "00 00")});
    ASSERT_TRUE(peer.sync());
    mLine.answer({frame(0x11, "00")}); // request 0: a daemon out of step, or one that was started anew
    mLine.answer({frame(2, "00 00")});
    const auto result = peer.request(kBeep);
    EXPECT_EQ(result.outcome, OutcomeE::eUnknown);
    EXPECT_TRUE(result.mayBeDone);
    EXPECT_TRUE(peer.inStep()) << "ready for the next request";
    EXPECT_EQ(headers(), "1F 00 11 ");
}

TEST_F(PeerTest, AnyOtherResetLeavesACallUnknown)
{
    getInStep();
    mLine.answer({});
    mLine.answer({frame(0x13, "00")}); // carried out with the reply lost, or two reset frames: nobody can say
    mLine.answer({frame(4, "00 00")});
    const auto result = mPeer.request(kBeep);
    EXPECT_EQ(result.outcome, OutcomeE::eUnknown);
    EXPECT_TRUE(result.mayBeDone);
    EXPECT_EQ(headers(), "01 01 13 ");
}

TEST_F(PeerTest, WhatIsSafeToRepeatIsMadeAgainAfterAnyReset)
{
    getInStep();
    mLine.answer({frame(0x13, "00")});
    mLine.answer({frame(4, "00 00")});
    mLine.answer({frame(5, "01")});
    EXPECT_EQ(mPeer.request(hex("01 01 04")).outcome, OutcomeE::eDone);
    EXPECT_EQ(headers(), "01 13 04 ");
}

TEST_F(PeerTest, AResetFrameThatCameInBetweenIsSeenBeforeTheNextRequest)
{
    getInStep();
    mLine.arrives(frame(0x12, "00"));
    mLine.answer({frame(3, "00 00")});
    mLine.answer({frame(4, "02")});
    EXPECT_EQ(mPeer.request(kBeep).outcome, OutcomeE::eDone);
    EXPECT_EQ(headers(), "12 03 ");
}

TEST_F(PeerTest, ALateReplyDoesNotAnswerTheNextRequest)
{
    getInStep();
    mLine.answer({frame(2, "00 50"), frame(2, "00 50")});
    ASSERT_EQ(mPeer.request(kReadBrightness).outcome, OutcomeE::eDone);
    mLine.answer({frame(3, "00 60")});
    EXPECT_EQ(mPeer.request(kReadBrightness).data, hex("60"));
    EXPECT_EQ(headers(), "01 02 ");
}

TEST_F(PeerTest, AnEchoIsNoAnswer)
{
    mLine.answer({hex("02 10 01 03 8F FF 00")});
    mLine.answer({hex("02 10 01 03 8F FF 00")});
    mLine.answer({hex("02 10 01 03 8F FF 00")});
    mLine.answer({hex("02 10 01 03 8F FF 00")});
    const auto result = mPeer.request(kBeep);
    EXPECT_EQ(result.outcome, OutcomeE::eNoAnswer);
    EXPECT_EQ(result.counts.echoes, 4U);
}

TEST_F(PeerTest, ShowsEachFrameToTheTrace)
{
    std::vector<TraceE> kinds;
    mPeer.setTrace([&](const qv::tTraceEvent& event) { kinds.push_back(event.kind); });
    mLine.answer({frame(1, "00 00")});
    mLine.answer({broken(2, "02")});
    mLine.answer({frame(1, "00 00"), frame(2, "82")});
    mLine.answer({frame(3, "02")});
    mPeer.request(kBeep);
    EXPECT_EQ(kinds,
              (std::vector{TraceE::eSync, TraceE::eReply, TraceE::eRequest, TraceE::eBroken, TraceE::eTimeout,
                           TraceE::eRepeat, TraceE::eStale, TraceE::eRefusal, TraceE::eRequest, TraceE::eReply}));
}

TEST_F(PeerTest, ARequestOfOneByteIsAMistakeOfTheCaller)
{
    EXPECT_THROW(mPeer.request(hex("02")), std::invalid_argument);
}

TEST_F(PeerTest, SendsAnyBytesForATest)
{
    mPeer.sendRaw(hex("00 11"));
    mPeer.sendFrame(0x1F, hex("02 09"), 0xFFFF);
    ASSERT_EQ(mLine.mWritten.size(), 2U);
    EXPECT_EQ(mLine.mWritten[0], hex("00 11"));
    const auto parsed = qv::parseWire(qv::ByteView(mLine.mWritten[1]).first(mLine.mWritten[1].size() - 1));
    EXPECT_EQ(parsed.header, 0x1F);
    EXPECT_EQ(parsed.crcGiven ^ parsed.crcComputed, 0xFFFF);
    mLine.arrives(frame(0x11, "00"));
    const auto received = mPeer.receiveFrame(qv::Clock::now());
    ASSERT_TRUE(received);
    EXPECT_TRUE(received->isResetFrame());
    EXPECT_FALSE(mPeer.receiveFrame(qv::Clock::now()));
}

} // namespace
