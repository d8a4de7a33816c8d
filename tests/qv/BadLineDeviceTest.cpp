#include "tests/process/RigTest.h"
#include "tests/qv/BadLineRun.h"

#include <sys/wait.h>

#include <csignal>
#include <map>

namespace {

using namespace std::chrono_literals;
using qv::OutcomeE;

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

void expectTrue(const bad_line::tFigures& figures, const bad_line::tCase& what)
{
    std::printf("%s\n%s\n", bad_line::tFigures::header().c_str(), figures.row(what).c_str());
    EXPECT_THAT(figures.violations, testing::IsEmpty());
}

TEST_F(BadLineDeviceTest, TwentyThousandRequestsEachTakeEffectOnceWithTheRightReply)
{
    const bad_line::tCase what{.kind = "frames", .percent = 5, .requests = 20'000, .seed = 20};
    const auto figures = bad_line::run(mRig, what);
    expectTrue(figures, what);
    for (const auto& counts : {figures.sent, figures.received}) {
        EXPECT_GT(counts.lost, what.requests / 25);
        EXPECT_GT(counts.corrupted, what.requests / 25);
    }
    EXPECT_LT(figures.unknown, what.requests / 100);
}

/// What no CRC can exclude is found and counted apart.
TEST_F(BadLineDeviceTest, ASpoiltFrameThatPassesTheCrcIsToldFromAFault)
{
    const bad_line::tCase what{.kind = "frames", .percent = 0, .requests = 600, .seed = 3, .forgeOneIn = 40};
    const auto figures = bad_line::run(mRig, what);
    expectTrue(figures, what);
    EXPECT_GT(figures.forgedOut, 0U);
    EXPECT_GT(figures.forgedIn, 0U);
    EXPECT_EQ(figures.escapesOut, figures.forgedOut);
    EXPECT_EQ(figures.escapesIn, figures.forgedIn);
    EXPECT_GT(figures.byEscapes, 0U);
}

/// Each kind of bad line, fewer requests the more often it fails.
class EveryBadLineTest : public testing::TestWithParam<std::string>
{};

TEST_P(EveryBadLineTest, EachRequestTakesEffectOnceWithTheRightReplyAtAnyRate)
{
    for (const auto& [percent, requests] :
         {std::pair{0U, 50U}, {1U, 75U}, {10U, 75U}, {20U, 50U}, {35U, 25U}, {50U, 10U}}) {
        rig::Rig rig;
        const bad_line::tCase what{.kind = GetParam(), .percent = percent, .requests = requests, .seed = percent};
        expectTrue(bad_line::run(rig, what), what);
        rig.daemon().kill();
        EXPECT_EQ(rig::sanitizerReport(rig.daemon().err()), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Lines, EveryBadLineTest, testing::ValuesIn(bad_line::kKinds),
                         [](const auto& test) { return test.param; });

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
