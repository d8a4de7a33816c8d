#include "qv/BadLine.h"
#include "tests/process/RigTest.h"

#include <sys/wait.h>

#include <csignal>
#include <map>

namespace {

using namespace std::chrono_literals;
using qv::OutcomeE;

constexpr unsigned kRequests = 20'000;
constexpr const char* kKey = "Startmode";

/// The real daemon at the end of a line that loses and corrupts frames.
class BadLineDeviceTest : public rig::RigTest
{
protected:
    /// Every effect that the system daemon saw, and how often.
    std::map<std::string, unsigned> effects(std::size_t from)
    {
        std::map<std::string, unsigned> seen;
        for (const auto& event : mRig.timeline().select(sim::match::call("SetCfgInt"), from)) {
            ++seen[event.arguments];
        }
        return seen;
    }
    static qv::Bytes setCfgLong(unsigned value)
    {
        auto arguments = rig::text(kKey);
        for (unsigned shift = 0; shift < 32; shift += 8) {
            arguments.push_back(static_cast<std::uint8_t>(value >> shift));
        }
        return rig::call(wire::eMethodSetCfgLong, arguments);
    }
    static std::string effectOf(unsigned value) { return "\"" + std::string(kKey) + "\", " + std::to_string(value); }
};

TEST_F(BadLineDeviceTest, TwentyThousandRequestsEachTakeEffectOnceWithTheRightReply)
{
    // A fast rate: the daemon waits seven characters' time before each read.
    sim::Daemon::tOptions options;
    options.arguments = {"-s", mRig.device().line().path(), "-b", "4000000"};
    mRig.start(options);
    ASSERT_TRUE(mRig.inStep());
    qv::BadLine line(mRig.port(), {.lose = 0.05, .corrupt = 0.05, .seed = 20});
    qv::Peer peer(line, {.timeout = 5ms, .tries = 2000, .firstNumber = 9});
    const auto from = mRig.timeline().mark();
    std::vector<unsigned> unknown;
    for (unsigned i = 0; i < kRequests; ++i) {
        if (i % 2 == 0) {
            const auto result = peer.request(setCfgLong(i));
            if (result.outcome == OutcomeE::eUnknown) {
                unknown.push_back(i);
            } else {
                ASSERT_EQ(result.outcome, OutcomeE::eDone) << i;
                ASSERT_TRUE(result.data.empty());
            }
        } else {
            mRig.device().sysd().setParam(180, static_cast<std::int32_t>(i));
            const auto result = peer.request(rig::readReg(wire::eRegRdParamWordA));
            ASSERT_EQ(result.outcome, OutcomeE::eDone) << i;
            ASSERT_EQ(result.data, (qv::Bytes{static_cast<std::uint8_t>(i), static_cast<std::uint8_t>(i >> 8)})) << i;
        }
    }
    // An outcome that the peer calls unknown is looked up, as its user would, and the request made if it was not
    // carried out.
    auto seen = effects(from);
    for (const auto i : unknown) {
        while (seen[effectOf(i)] == 0) {
            peer.request(setCfgLong(i));
            seen = effects(from);
        }
    }
    std::size_t total = 0;
    for (unsigned i = 0; i < kRequests; i += 2) {
        ASSERT_EQ(seen[effectOf(i)], 1U) << i;
        ++total;
    }
    EXPECT_EQ(seen.size(), total) << "and nothing else happened";
    const auto& sent = line.sentCounts();
    const auto& received = line.receivedCounts();
    std::printf("%u frames sent, %u lost, %u corrupted; %u received, %u lost, %u corrupted; %u repeats, %u resets, %zu "
                "unknown\n",
                sent.frames, sent.lost, sent.corrupted, received.frames, received.lost, received.corrupted,
                peer.counts().repeats, peer.counts().resets, unknown.size());
    for (const auto& counts : {sent, received}) {
        EXPECT_GT(counts.lost, kRequests / 25);
        EXPECT_GT(counts.corrupted, kRequests / 25);
    }
    EXPECT_LT(unknown.size(), kRequests / 100);
}

/// Frames that wait together are read together, and look like one with a byte too many: refused for its length.
TEST_F(BadLineDeviceTest, ARequestThatPiledUpWhileTheDaemonSleptTakesEffectOnce)
{
    mRig.start();
    ASSERT_TRUE(mRig.inStep());
    qv::Peer peer(mRig.port(), {.timeout = 20ms, .tries = 500});
    ASSERT_TRUE(peer.sync());
    unsigned refusals = 0;
    peer.setTrace([&](const qv::tTraceEvent& event) {
        refusals += event.kind == qv::TraceE::eRefusal ? 1 : 0;
        if (event.kind == qv::TraceE::eTimeout && event.attempt == 3) {
            mRig.daemon().signal(SIGCONT);
        }
    });
    mRig.daemon().signal(SIGSTOP);
    siginfo_t stopped{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(mRig.daemon().pid()), &stopped, WSTOPPED | WNOWAIT), 0);
    const auto result = peer.request(rig::call(wire::eMethodSetBrightness, {80}));
    EXPECT_EQ(result.outcome, OutcomeE::eDone);
    EXPECT_GE(refusals, 1U);
    EXPECT_EQ(mRig.timeline().count(sim::match::call("SetBrightness")), 1U);
}

TEST_F(BadLineDeviceTest, ADaemonThatDiesWithARequestLeavesItUnknown)
{
    ASSERT_TRUE(mRig.serve());
    qv::Peer peer(mRig.port(), {.timeout = 200ms, .tries = 100});
    ASSERT_TRUE(peer.sync());
    mRig.device().sysd().setBehaviour("SetCfgInt", sim::tBehaviour::silent());
    const auto from = mRig.timeline().mark();
    bool killed = false;
    peer.setTrace([&](const qv::tTraceEvent& event) {
        if (event.kind == qv::TraceE::eTimeout && !killed &&
            mRig.timeline().waitFor(sim::match::call("SetCfgInt"), from)) {
            killed = true;
            mRig.daemon().kill();
            mRig.start();
        }
    });
    const auto result = peer.request(setCfgLong(7));
    EXPECT_TRUE(killed);
    EXPECT_EQ(result.outcome, OutcomeE::eUnknown);
    EXPECT_TRUE(result.mayBeDone);
    EXPECT_EQ(effects(from)[effectOf(7)], 1U) << "not carried out again by the new daemon";
    EXPECT_TRUE(peer.inStep());
}

} // namespace
