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
    void forget()
    {
        mAnswers.clear();
        mIncoming.clear();
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

constexpr auto kLong = 1h; ///< silence is over at once here; a machine that stands still must not end a wait
const auto kBeep = hex("02 09");
const auto kReadBrightness = hex("00 09");

class PeerTest : public testing::Test
{
protected:
    /// In step, the next request has number 1.
    void getInStep() { getInStep(mPeer); }
    void getInStep(qv::Peer& peer)
    {
        const unsigned first = peer.options().firstNumber;
        mLine.answer({frame((first + 1) % 16, "00 00")});
        mLine.answer({frame((first + 9) % 16, "00 00")});
        ASSERT_TRUE(peer.sync());
        mLine.mWritten.clear();
    }
    /// For a fresh peer whose first request is to have this number.
    static std::uint8_t firstFor(unsigned number) { return static_cast<std::uint8_t>((number + 7) % 16); }
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
    qv::Peer mPeer{mLine, {.timeout = kLong, .tries = 4, .firstNumber = firstFor(1)}};
};

TEST_F(PeerTest, GetsInStepTwiceWithAHarmlessReadThatCarriesTheResetFlag)
{
    mLine.answer({frame(9, "00 00")});
    mLine.answer({frame(1, "00 00")});
    mLine.answer({frame(2, "00 50")});
    const auto result = mPeer.request(kReadBrightness);
    EXPECT_EQ(result.outcome, OutcomeE::eDone);
    EXPECT_EQ(result.data, hex("50"));
    ASSERT_EQ(mLine.mWritten.size(), 3U);
    EXPECT_EQ(mLine.mWritten[0], frame(0x18, "00 00"));
    EXPECT_EQ(mLine.mWritten[1], hex("02 10 01 03 8F FF 00"));
    EXPECT_EQ(mLine.mWritten[2], qv::toWire(qv::buildFrame(0x01, kReadBrightness)));
    EXPECT_EQ(mPeer.number(), 2);
    EXPECT_EQ(result.counts.syncs, 1U);
}

TEST_F(PeerTest, GetsInStepOnceWhenItLostItsStep)
{
    getInStep();
    mPeer.forgetStep();
    mLine.answer({frame(9, "00 00")});
    mLine.answer({frame(10, "02")});
    EXPECT_EQ(mPeer.request(kBeep).outcome, OutcomeE::eDone);
    EXPECT_EQ(headers(), "18 09 ");
}

TEST_F(PeerTest, EachFrameThatGetsInStepHasANewNumber)
{
    getInStep();
    mPeer.forgetStep();
    mLine.answer({});
    mLine.answer({frame(9, "00 00")}); // the first one's, late
    mLine.answer({frame(7, "00 00")});
    EXPECT_TRUE(mPeer.sync());
    EXPECT_EQ(headers(), "18 1F 16 ");
    EXPECT_EQ(mPeer.number(), 7);
    EXPECT_EQ(mPeer.counts().repeats, 0U);
}

TEST_F(PeerTest, WaitsForAQuietLineBeforeItsFirstFrame)
{
    mLine.arrives(frame(9, "00 00"));
    const auto before = qv::Clock::now();
    EXPECT_FALSE(mPeer.sync());
    EXPECT_EQ(mPeer.counts().stale, 1U);
    ASSERT_GE(mLine.mDeadlines.size(), 2U);
    EXPECT_GE(mLine.mDeadlines[1], before + 20ms) << "nothing more has come for so long";
    EXPECT_EQ(headers(), "18 1F 16 1D ");
}

/// Sends frames all the time.
class FloodedLine : public qv::Line
{
public:
    void write(qv::ByteView) override { ++mWritten; }
    qv::Bytes read(qv::Clock::time_point) override { return frame(3, "00 50"); }

    unsigned mWritten = 0;
};

TEST(FloodedLine, IsNotWaitedForForEver)
{
    FloodedLine line;
    qv::Peer peer(line, {.timeout = 1ms, .tries = 2});
    EXPECT_EQ(peer.request(kBeep).outcome, OutcomeE::eNoAnswer);
    EXPECT_EQ(line.mWritten, 2U);
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
    mLine.answer({frame(9, "00 00")});
    mLine.answer({frame(10, "02")});
    EXPECT_EQ(mPeer.request(kBeep).outcome, OutcomeE::eDone);
    EXPECT_EQ(headers(), "01 01 01 01 18 09 ");
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
    EXPECT_EQ(headers(), "18 1F 16 1D ");
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
    qv::Peer peer(mLine, {.timeout = 1h, .tries = 1, .firstNumber = firstFor(1)});
    getInStep(peer);
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
    getInStep();
    mPeer.forgetStep();
    mLine.answer({frame(9, "00 50")});
    mLine.answer({frame(0, "00 00")});
    EXPECT_TRUE(mPeer.sync());
    EXPECT_EQ(headers(), "18 1F ");
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
    qv::Peer peer(mLine, {.timeout = kLong, .tries = 4, .firstNumber = firstFor(5)});
    getInStep(peer);
    mLine.answer({frame(0x16, "00")});  // request 5: reset frame 6
    mLine.answer({frame(13, "00 00")}); // sync 12
    mLine.answer({frame(14, "02")});    // request 13
    const auto result = peer.request(kBeep);
    EXPECT_EQ(result.outcome, OutcomeE::eDone);
    EXPECT_EQ(result.counts.resets, 1U);
    EXPECT_EQ(headers(), "05 1C 0D ");
}

/// A request, its repeats without an answer, and the reset frame with the next number.
TEST_F(PeerTest, AResetThatAFreshDaemonMaySendProvesNothing)
{
    for (unsigned number = 0; number < 16; ++number) {
        for (unsigned sends = 1; sends <= 4; ++sends) {
            SCOPED_TRACE(std::to_string(sends) + " sendings with number " + std::to_string(number));
            qv::Peer peer(mLine, {.timeout = kLong, .tries = 4, .firstNumber = firstFor(number)});
            getInStep(peer);
            for (unsigned i = 1; i < sends; ++i) {
                mLine.answer({});
            }
            mLine.answer({frame(0x10 | (number + 1) % 16, "00")});
            mLine.answer({frame((number + 8) % 16, "00 00")});
            mLine.answer({frame((number + 9) % 16, "02")});
            const auto result = peer.request(kBeep);
            // a fresh daemon sends so many resets for the sendings, or one more for some noise
            const bool mayBeFresh = number + 1 <= sends + 1;
            EXPECT_EQ(result.outcome, mayBeFresh ? OutcomeE::eUnknown : OutcomeE::eDone);
            EXPECT_EQ(result.mayBeDone, mayBeFresh);
            EXPECT_TRUE(peer.inStep()) << "ready for the next request";
            EXPECT_EQ(mLine.mWritten.size(), sends + (mayBeFresh ? 1 : 2));
            mLine.forget();
        }
    }
}

TEST_F(PeerTest, AnyOtherResetLeavesACallUnknown)
{
    getInStep();
    mLine.answer({});
    mLine.answer({frame(0x13, "00")}); // carried out with the reply lost, or two reset frames: nobody can say
    mLine.answer({frame(9, "00 00")});
    const auto result = mPeer.request(kBeep);
    EXPECT_EQ(result.outcome, OutcomeE::eUnknown);
    EXPECT_TRUE(result.mayBeDone);
    EXPECT_EQ(headers(), "01 01 18 ");
}

TEST_F(PeerTest, WhatIsSafeToRepeatIsMadeAgainAfterAnyReset)
{
    getInStep();
    mLine.answer({frame(0x13, "00")});
    mLine.answer({frame(9, "00 00")});
    mLine.answer({frame(10, "01")});
    EXPECT_EQ(mPeer.request(hex("01 01 04")).outcome, OutcomeE::eDone);
    EXPECT_EQ(headers(), "01 18 09 ");
}

TEST_F(PeerTest, AResetFrameThatCameInBetweenIsSeenBeforeTheNextRequest)
{
    getInStep();
    mLine.arrives(frame(0x12, "00"));
    mLine.answer({frame(9, "00 00")});
    mLine.answer({frame(10, "02")});
    EXPECT_EQ(mPeer.request(kBeep).outcome, OutcomeE::eDone);
    EXPECT_EQ(headers(), "18 09 ");
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
    for (const unsigned header : {0x18U, 0x1FU, 0x16U, 0x1DU}) {
        mLine.answer({frame(header, "00 00")});
    }
    const auto result = mPeer.request(kBeep);
    EXPECT_EQ(result.outcome, OutcomeE::eNoAnswer);
    EXPECT_EQ(result.counts.echoes, 4U);
}

TEST_F(PeerTest, ShowsEachFrameToTheTrace)
{
    std::vector<TraceE> kinds;
    mPeer.setTrace([&](const qv::tTraceEvent& event) { kinds.push_back(event.kind); });
    mLine.answer({frame(9, "00 00")});
    mLine.answer({frame(1, "00 00")});
    mLine.answer({broken(2, "02")});
    mLine.answer({frame(1, "00 00"), frame(2, "82")});
    mLine.answer({frame(3, "02")});
    mPeer.request(kBeep);
    EXPECT_EQ(kinds, (std::vector{TraceE::eSync, TraceE::eReply, TraceE::eSync, TraceE::eReply, TraceE::eRequest,
                                  TraceE::eBroken, TraceE::eTimeout, TraceE::eRepeat, TraceE::eStale, TraceE::eRefusal,
                                  TraceE::eRequest, TraceE::eReply}));
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
