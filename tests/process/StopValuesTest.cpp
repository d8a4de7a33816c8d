// A stop makes no value wrong: whatever the system daemon's answers do meanwhile, what it is told is what it would have
// been told on any other day, or nothing.

#include "tests/process/RigTest.h"

#include <csignal>

namespace {

using namespace rig;
using sim::exited;
using sim::KindE;
using sim::tBehaviour;
using sim::match::call;

/// A request that reads from the system daemon and writes on what it has read.
struct tCase
{
    const char* name;
    const char* getter; ///< whose answer is late
    qv::Bytes message;
    bool afterTheStory = false;
};

enum AnswerE
{
    eSlow,    ///< by more than a second
    eTooLate, ///< when the call has been given up
    eMissing
};

const tCase kCases[] = {
    {"TimeZone", "GetParamBool", writeReg(wire::eRegWrTimeZone, {9, 0, 0, 0})},
    {"TimeZoneFlag", "GetParamInt", writeReg(wire::eRegWrTimeZoneFlag, {0})},
    {"Network", "GetCfgString", rig::call(wire::eMethodSetNetworkCfg, text("eth1")), true},
    {"ApplyConfig", "GetCfgString", rig::call(wire::eMethodApplyConfig), true},
};

class StopValues : public RigTest, public ::testing::WithParamInterface<std::tuple<tCase, AnswerE>>
{
protected:
    static constexpr char kGivenUp[] = "SDBusSysD: Failed to get ";

    static void serve(Rig& rig)
    {
        sim::Daemon::tOptions options;
        options.environment = kShortCalls;
        rig.device().sysd().setParam(112, true);
        rig.device().sysd().setParam(111, 37);
        ASSERT_TRUE(rig.serve(options));
    }

    /// The next answer of the getter is so.
    static void spoil(Rig& rig, const std::string& getter, AnswerE answer)
    {
        rig.device().sysd().setBehaviour(getter, (answer == eSlow      ? tBehaviour::delayed(milliseconds{1100})
                                                  : answer == eTooLate ? tBehaviour::held()
                                                                       : tBehaviour::silent())
                                                     .times(1));
    }

    static void releaseInTime(Rig& rig, AnswerE answer)
    {
        if (answer == eTooLate) {
            EXPECT_TRUE(rig.daemon().waitForOutput(kGivenUp));
            rig.device().sysd().release();
        }
    }

    static std::vector<std::string> told(Rig& rig, std::size_t from)
    {
        std::vector<std::string> out;
        for (const sim::tEvent& event : rig.timeline().events(from))
            if (event.kind == KindE::eCall && event.service == "sysd")
                out.push_back(event.call());
        return out;
    }

    /// What the system daemon is told when the request comes, and perhaps a stop while its getter waits.
    static std::vector<std::string> request(Rig& rig, bool stop)
    {
        const auto& [what, answer] = GetParam();
        serve(rig);
        EXPECT_TRUE(!what.afterTheStory || rig.playStory());
        rig.waitsForRequest();
        spoil(rig, what.getter, answer);
        const std::size_t from = rig.timeline().mark();
        rig.peer().sendFrame(rig.peer().number(), what.message);
        EXPECT_TRUE(rig.timeline().waitFor(call(what.getter), from));
        if (stop)
            rig.daemon().signal(SIGTERM);
        releaseInTime(rig, answer);
        EXPECT_FALSE(rig.receive(1).empty()) << "no reply";
        EXPECT_TRUE(!stop || rig.daemon().waitExit() == exited(0));
        return told(rig, from);
    }
};

TEST_P(StopValues, ARequestInHandTellsTheSameAsOnAnyOtherDay)
{
    Rig another;
    const auto expected = request(another, false);
    EXPECT_GE(expected.size(), 2U);
    EXPECT_EQ(request(mRig, true), expected);
}

void PrintTo(const tCase& what, std::ostream* out)
{
    *out << what.name;
}

std::string nameOf(const ::testing::TestParamInfo<std::tuple<tCase, AnswerE>>& info)
{
    const char* const kAnswers[] = {"Slow", "TooLate", "Missing"};
    return std::string(std::get<0>(info.param).name) + kAnswers[std::get<1>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(Stop, StopValues,
                         ::testing::Combine(::testing::ValuesIn(kCases), ::testing::Values(eSlow, eTooLate, eMissing)),
                         nameOf);

/// The same for the logo thread, which a stop ends between two calls.
class StopOfTheLogoThread : public StopValues
{
protected:
    static std::vector<std::string> settings(Rig& rig, bool stop)
    {
        const AnswerE answer = std::get<1>(GetParam());
        serve(rig);
        spoil(rig, "GetCfgString", answer);
        EXPECT_TRUE(rig.tellStory());
        EXPECT_TRUE(rig.timeline().waitFor(call("GetCfgString", R"("VisuURL")")));
        if (stop) {
            EXPECT_TRUE(rig.waitsForRequest());
            rig.daemon().signal(SIGTERM);
            EXPECT_EQ(rig.ask(readReg(wire::eRegRdConst0)), "00 00");
        }
        releaseInTime(rig, answer);
        EXPECT_TRUE(stop ? rig.daemon().waitExit() == exited(0)
                         : rig.timeline().waitFor(call("LoadConfig")).has_value());
        std::vector<std::string> writes; // without those of the start and of QV's address
        for (const std::string& one : told(rig, 0))
            if (one.starts_with("sysd.SetParam") && !one.starts_with("sysd.SetParamInt(211") &&
                !one.starts_with("sysd.SetParamString(214"))
                writes.push_back(one);
        return writes;
    }
};

TEST_P(StopOfTheLogoThread, WritesARightSettingOrNone)
{
    Rig another;
    std::vector<std::string> expected = settings(another, false);
    ASSERT_FALSE(expected.empty());
    const auto writes = settings(mRig, true);
    ASSERT_LE(writes.size(), expected.size());
    expected.resize(writes.size());
    EXPECT_EQ(writes, expected);
    EXPECT_TRUE(std::get<1>(GetParam()) == eSlow || writes.empty()) << "written on without having been read";
}

INSTANTIATE_TEST_SUITE_P(Stop, StopOfTheLogoThread,
                         ::testing::Combine(::testing::Values(tCase{"Visualisation", "GetCfgString", {}}),
                                            ::testing::Values(eSlow, eTooLate, eMissing)),
                         nameOf);

} // namespace
