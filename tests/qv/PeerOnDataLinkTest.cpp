#include "fuzz/InlineThreads.h"
#include "link/SDataLink.h"
#include "link/SManager.h"
#include "protocol/Wire.h"
#include "qv/Peer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

// QV's peer against the daemon's own data link, on a line in memory: first in, first out, and nothing is waited for.

namespace {

using namespace std::chrono_literals;
using qv::OutcomeE;

const qv::Bytes kScrap{0x02, 0x55, 0x00};                           ///< noise: too short for a frame
const qv::Bytes kGarbled{0x06, 0x11, 0x22, 0x33, 0x44, 0x55, 0x00}; ///< noise: a frame with a wrong CRC

qv::Bytes call(unsigned id)
{
    return {wire::eCmdCall, wire::eMethodBeep, static_cast<std::uint8_t>(id), static_cast<std::uint8_t>(id >> 8)};
}

/// The transport below the daemon's data link.
class MemorySerial : public SerialIf
{
public:
    int getBackendType() override { return eBackendSerial; }
    int init(tInitParams*) override { return 0; }
    bool isOpen() const override { return true; }
    int readBlocking(unsigned char* buffer, unsigned int length, int) override
    {
        if (mIn.empty()) {
            throw std::logic_error("nothing to read");
        }
        const auto count = static_cast<std::ptrdiff_t>(std::min<std::size_t>(length, mIn.size()));
        std::copy_n(mIn.begin(), count, buffer);
        mIn.erase(mIn.begin(), mIn.begin() + count);
        return static_cast<int>(count);
    }
    int writeBlocking(const unsigned char* buffer, unsigned int length, int) override
    {
        mOut.emplace_back(buffer, buffer + length);
        return static_cast<int>(length);
    }

    qv::Bytes mIn;
    std::vector<qv::Bytes> mOut;
};

/// The daemon: its data link, and a handler that answers a read with the register's number and counts each call.
class Daemon
{
public:
    Daemon()
    {
        SManager::registerSerialBackend(mSerial);
        start();
    }
    ~Daemon()
    {
        mLink.reset();
        SManager::registerSerialBackend(nullptr);
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    void start()
    {
        mLink = std::make_unique<SDataLink>();
        mLink->init();
        mSerial->mOut.clear();
    }

    /// Reads `bytes` at once; gives the frames that it sends. With `dies`, it is started anew before it replies.
    std::vector<qv::Bytes> take(const qv::Bytes& bytes, bool dies = false)
    {
        mSerial->mIn = bytes;
        while (!mSerial->mIn.empty()) {
            SDataLink::tBytes message;
            if (mLink->tryRead(message) != SDataLink::eReadMessage) {
                continue;
            }
            const auto reply = carryOut(message);
            if (dies) {
                start();
            } else {
                mLink->reply(std::make_unique<SDataLink::tBytes>(reply));
            }
        }
        return std::exchange(mSerial->mOut, {});
    }

    std::map<unsigned, unsigned> mDone; ///< how often each call was carried out

private:
    qv::Bytes carryOut(const qv::Bytes& message)
    {
        if (message[0] == wire::eCmdReadReg) {
            return {message[0], message[1]};
        }
        if (message.size() != call(0).size()) {
            return {wire::eCmdCall | wire::kErrorBit};
        }
        ++mDone[message[2] | unsigned{message[3]} << 8];
        return {wire::eCmdCall};
    }

    MemorySerial* mSerial = new MemorySerial; // SManager owns it
    std::unique_ptr<SDataLink> mLink;
};

/// What is on the way between the two.
class FifoLine : public qv::Line
{
public:
    void write(qv::ByteView bytes) override { mToDaemon.emplace_back(bytes.begin(), bytes.end()); }

    bool quiet() const { return mToDaemon.empty() && mToQv.empty(); }
    void noise(const qv::Bytes& bytes) { daemonTakes(bytes); }
    /// The daemon reads so many of the frames on their way to it, in one piece.
    void serve(std::size_t frames = 1, bool dies = false)
    {
        qv::Bytes bytes;
        for (; frames > 0; --frames) {
            bytes.insert(bytes.end(), mToDaemon.front().begin(), mToDaemon.front().end());
            mToDaemon.pop_front();
        }
        daemonTakes(bytes, dies);
    }
    qv::Bytes deliver()
    {
        auto frame = std::move(mToQv.front());
        mToQv.pop_front();
        return frame;
    }

    Daemon mDaemon;

protected:
    std::deque<qv::Bytes> mToDaemon;
    std::deque<qv::Bytes> mToQv;
    qv::Bytes mDirt; ///< what the daemon has read without a delimiter

private:
    void daemonTakes(const qv::Bytes& bytes, bool dies = false)
    {
        auto all = std::exchange(mDirt, {});
        all.insert(all.end(), bytes.begin(), bytes.end());
        for (auto& frame : mDaemon.take(all, dies)) {
            mToQv.push_back(std::move(frame));
        }
    }
};

enum class StepE : std::uint8_t
{
    eServe,   ///< the daemon reads the next frame
    eDeliver, ///< QV gets the next frame
    eSilence, ///< QV waits in vain
    eScrap,   ///< noise, which the daemon answers by a reset frame
    eGarbled, ///< noise, which the daemon answers by its last reply
};

/// A line on which things happen in a given order once a frame is on its way; afterwards it is a good line.
class StagedLine : public FifoLine
{
public:
    void play(std::initializer_list<StepE> steps) { mSteps.assign(steps); }

    qv::Bytes read(qv::Clock::time_point) override
    {
        while (!mSteps.empty() && !quiet()) {
            const auto step = mSteps.front();
            mSteps.pop_front();
            switch (step) {
            case StepE::eServe:
                serve();
                break;
            case StepE::eDeliver:
                return deliver();
            case StepE::eSilence:
                return {};
            case StepE::eScrap:
                noise(kScrap);
                break;
            case StepE::eGarbled:
                noise(kGarbled);
                break;
            }
        }
        while (mToQv.empty() && !mToDaemon.empty()) {
            serve();
        }
        return mToQv.empty() ? qv::Bytes() : deliver();
    }

    bool played() const { return mSteps.empty(); }

private:
    std::deque<StepE> mSteps;
};

class PeerOnDataLinkTest : public ::testing::Test
{
protected:
    PeerOnDataLinkTest() { testing::internal::CaptureStderr(); } // a line for each broken frame
    ~PeerOnDataLinkTest() override { testing::internal::GetCapturedStderr(); }

    InlineThreads mInline;
};

/// Were it repeated with its number, the first one's reply would be taken for the second one's: in step, QV would send
/// the call, and believe the reset that the scrap brings about, while both frames were still on their way.
TEST_F(PeerOnDataLinkTest, ALateReplyWhileGettingInStepMakesNoCallHappenTwice)
{
    StagedLine line;
    qv::Peer peer(line);
    ASSERT_TRUE(peer.sync());
    peer.forgetStep();
    line.play({StepE::eServe, StepE::eSilence, StepE::eDeliver, StepE::eScrap, StepE::eDeliver});
    EXPECT_EQ(peer.request(call(7)).outcome, OutcomeE::eDone);
    EXPECT_EQ(line.mDaemon.mDone[7], 1U);
    EXPECT_TRUE(line.played());
}

/// QV's former life got in step with the same number, and the daemon sends the stored reply to that once more: it says
/// nothing of the frame on its way.
TEST_F(PeerOnDataLinkTest, AReplyToItsFormerLifeMakesNoCallHappenTwice)
{
    StagedLine line;
    constexpr std::uint8_t kNumber = 5;
    line.write(qv::toWire(qv::buildFrame(qv::kResetFlag | kNumber, qv::Bytes{wire::eCmdReadReg, wire::eRegRdConst0})));
    qv::Peer peer(line, {.firstNumber = kNumber});
    line.play({StepE::eServe, StepE::eDeliver});
    // quiet now; with its first frame on the way
    bool first = true;
    peer.setTrace([&](const qv::tTraceEvent& event) {
        if (event.sent && std::exchange(first, false)) {
            line.play({StepE::eGarbled, StepE::eDeliver, StepE::eScrap, StepE::eServe, StepE::eDeliver});
        }
    });
    EXPECT_EQ(peer.request(call(7)).outcome, OutcomeE::eDone);
    EXPECT_EQ(line.mDaemon.mDone[7], 1U);
    EXPECT_TRUE(line.played());
}

struct tEndOfQv
{};

/// A line on which anything may happen that the model of the link (model/link.pml) has: at most kFaults together, which
/// may come again once a request is answered and nothing is on the way.
class RandomLine : public FifoLine
{
public:
    explicit RandomLine(unsigned seed)
        : mRandom(seed)
    {}

    void write(qv::ByteView bytes) override
    {
        mIdle = false;
        if (mToDaemon.size() < kOnTheWay) {
            FifoLine::write(bytes);
        }
    }

    qv::Bytes read(qv::Clock::time_point) override
    {
        if (mIdle && !mFresh) {
            return mToQv.empty() ? qv::Bytes() : deliver(); // only what has come
        }
        while (!quiet()) {
            if (mFaults > 0 && below(8) == 0) {
                --mFaults;
                ++mFaultsInAll;
                if (fault()) {
                    return {};
                }
            } else if (!mToQv.empty() && below(2) == 0) {
                return deliver();
            } else if (!mToDaemon.empty() && mToQv.size() < kOnTheWay) {
                serve(below(8) == 0 ? mToDaemon.size() : 1);
            }
        }
        return {};
    }

    /// QV has no request under way; a fresh one reads until the line is quiet.
    void idle(bool fresh)
    {
        mIdle = true;
        mFresh = fresh;
        for (auto steps = below(3); steps > 0 && !mToDaemon.empty(); --steps) {
            serve();
        }
    }
    void answered() { mFaults = quiet() ? kFaults : mFaults; }
    unsigned below(std::size_t limit) { return static_cast<unsigned>(mRandom() % limit); }
    unsigned faultsInAll() const { return mFaultsInAll; }

private:
    static constexpr unsigned kFaults = 4;
    static constexpr std::size_t kOnTheWay = 3;

    /// True: QV's wait is over.
    bool fault()
    {
        switch (below(10)) {
        case 0:
            lose(mToDaemon);
            break;
        case 1:
            lose(mToQv);
            break;
        case 2:
            noise(kScrap);
            break;
        case 3:
            noise(kGarbled);
            break;
        case 4: // damaged
            if (lose(mToDaemon)) {
                noise(below(2) == 0 ? kScrap : kGarbled);
            }
            break;
        case 5: // the delimiter is lost
            if (!mToDaemon.empty()) {
                mDirt.insert(mDirt.end(), mToDaemon.front().begin(), mToDaemon.front().end() - 1);
                lose(mToDaemon);
            }
            break;
        case 6:
            mDaemon.start();
            mDirt.clear();
            break;
        case 7: // ends after a call and before its reply
            if (!mToDaemon.empty()) {
                serve(1, true);
                mDirt.clear();
            }
            break;
        case 8:
            if (!mIdle) {
                throw tEndOfQv();
            }
            break;
        default:
            return !mIdle;
        }
        return false;
    }
    static bool lose(std::deque<qv::Bytes>& frames)
    {
        if (frames.empty()) {
            return false;
        }
        frames.pop_front();
        return true;
    }

    std::mt19937 mRandom;
    unsigned mFaults = kFaults;
    unsigned mFaultsInAll = 0;
    bool mIdle = true;
    bool mFresh = true;
};

class PeerOnRandomLineTest : public PeerOnDataLinkTest, public testing::WithParamInterface<unsigned>
{
protected:
    void startPeer()
    {
        qv::tPeerOptions options;
        options.timeout = 1h;
        options.tries = mTries;
        options.firstNumber = static_cast<std::uint8_t>(mLine.below(16));
        mPeer = std::make_unique<qv::Peer>(mLine, options);
    }

    void read(unsigned id)
    {
        const auto number = static_cast<std::uint8_t>(1 + id % 250);
        const auto result = mPeer->request(qv::Bytes{wire::eCmdReadReg, number});
        if (result.outcome == OutcomeE::eDone) {
            EXPECT_EQ(result.data, qv::Bytes{number}) << "request " << id;
            mLine.answered();
        }
    }

    void callOnce(unsigned id)
    {
        const auto result = mPeer->request(call(id));
        const auto done = mLine.mDaemon.mDone[id];
        if (result.outcome == OutcomeE::eDone) {
            EXPECT_EQ(done, 1U) << "request " << id;
            ++mDone;
            mLine.answered();
        } else if (!result.mayBeDone) {
            mNever.push_back(id);
        }
        mUnknown += result.outcome == OutcomeE::eUnknown ? 1 : 0;
    }

    static constexpr unsigned kTries[] = {2, 3, 5};

    RandomLine mLine{GetParam()};
    unsigned mTries = kTries[GetParam() % 3];
    std::unique_ptr<qv::Peer> mPeer;
    unsigned mDone = 0;
    unsigned mUnknown = 0;
    unsigned mLives = 0;
    std::vector<unsigned> mNever; ///< said to be not carried out
};

TEST_P(PeerOnRandomLineTest, NoCallHappensTwiceAndNoneBehindQvsBack)
{
    constexpr unsigned kRequests = 5000;
    for (unsigned id = 0; id < kRequests; ++id) {
        const bool fresh = mPeer == nullptr;
        if (fresh) {
            startPeer();
            ++mLives;
        }
        mLine.idle(fresh);
        try {
            id % 4 == 0 ? read(id) : callOnce(id);
        } catch (const tEndOfQv&) {
            mPeer.reset();
        }
    }
    for (const auto& [id, times] : mLine.mDaemon.mDone) {
        EXPECT_LE(times, 1U) << "request " << id;
    }
    for (const auto id : mNever) {
        EXPECT_EQ(mLine.mDaemon.mDone[id], 0U) << "request " << id;
    }
    RecordProperty("done", static_cast<int>(mDone));
    RecordProperty("unknown", static_cast<int>(mUnknown));
    RecordProperty("faults", static_cast<int>(mLine.faultsInAll()));
    RecordProperty("lives", static_cast<int>(mLives));
    EXPECT_GT(mDone, kRequests / 2);
    EXPECT_GT(mUnknown, 0U);
    EXPECT_GT(mLine.faultsInAll(), kRequests / 4);
    EXPECT_GT(mLives, 100U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, PeerOnRandomLineTest, testing::Range(1U, 7U));

} // namespace
