#include "qv/BadLine.h"
#include "tests/process/RigTest.h"

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
    qv::Peer peer(line, {.timeout = 5ms, .tries = 40, .firstNumber = 9});
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

} // namespace
