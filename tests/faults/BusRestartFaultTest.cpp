#include "tests/faults/FaultTest.h"

#include <sys/wait.h>

#include <csignal>
#include <ostream>
#include <tuple>

namespace {

using namespace rig;
using namespace std::chrono_literals;
using sim::tBehaviour;
using sim::match::call;

/// Where the system bus is lost, and what must have come about in the end.
struct tPhase
{
    const char* name;
    const char* words;
    bool inACall; ///< the system daemon holds an answer back when the bus goes: that one call is lost
    void (*reach)(Rig& rig);
    void (*finish)(Rig& rig);
};

void PrintTo(const tPhase& phase, std::ostream* out)
{
    *out << phase.name;
}

/// The answer to this call is held back, and the daemon waits for it.
void hold(Rig& rig, const char* member, void (*proceed)(Rig& rig))
{
    const std::size_t from = rig.timeline().mark();
    rig.device().sysd().setBehaviour(member, tBehaviour::held());
    proceed(rig);
    EXPECT_TRUE(rig.timeline().waitFor(call(member), from));
}

void serve(Rig& rig)
{
    EXPECT_TRUE(rig.serve());
}

void reachLogos(Rig& rig)
{
    rig.device().logo().setDuration({});
    serve(rig);
    EXPECT_TRUE(rig.tellStory());
    EXPECT_TRUE(rig.timeline().waitFor(call("Start")));
}

void finishLogos(Rig& rig)
{
    rig.device().logo().finish();
}

void expectVisualisation(Rig& rig)
{
    EXPECT_TRUE(rig.timeline().waitFor(call("LoadConfig"), 0, 5s));
    EXPECT_EQ(rig.timeline().missingInOrder({call("SetParamInt", "0, 2"), call("LoadConfig")}), "");
    EXPECT_EQ(rig.ask(readReg(wire::eRegRdCfgApplied)), "00 01");
}

constexpr tPhase kPhases[] = {
    {"StartParameters", "while the daemon reads its start parameters", true,
     [](Rig& rig) { hold(rig, "GetParamInt", [](Rig& r) { r.start(); }); }, [](Rig&) {}},
    {"Serving", "while the daemon serves", false, serve, [](Rig&) {}},
    {"Logos", "while the logos run", false, reachLogos,
     [](Rig& rig) {
         finishLogos(rig);
         expectVisualisation(rig);
     }},
    {"Applying", "while the daemon applies the configuration", true,
     [](Rig& rig) {
         reachLogos(rig);
         hold(rig, "SaveConfig", finishLogos);
     },
     expectVisualisation},
};

using tCase = std::tuple<tPhase, sim::BusKindE>;

class SystemBusRestarted : public FaultTest, public ::testing::WithParamInterface<tCase>
{
protected:
    SystemBusRestarted() { mRig.device().runBusesAs(std::get<1>(GetParam())); }

    /// The daemon sees the old bus lost and the new one there at once, however the threads run.
    void restartSystemBus()
    {
        const pid_t pid = mRig.daemon().pid();
        siginfo_t stopped{};
        mRig.daemon().signal(SIGSTOP);
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &stopped, WSTOPPED), 0);
        mRig.device().stopSystemBus();
        mRig.device().sysd().clearBehaviour();
        mRig.device().startSystemBus();
        mRig.daemon().signal(SIGCONT);
    }
};

std::string nameOf(const ::testing::TestParamInfo<tCase>& info)
{
    const auto& [phase, kind] = info.param;
    return phase.name + busName({kind, info.index});
}

INSTANTIATE_TEST_SUITE_P(Phases, SystemBusRestarted, ::testing::Combine(::testing::ValuesIn(kPhases), kEachBus),
                         nameOf);

TEST_P(SystemBusRestarted, isUsedAgain)
{
    const auto& [phase, kind] = GetParam();
    describe({std::string("system bus restarted ") + phase.words + onBus(kind),
              phase.inACall ? "lines for the call in hand" : "nothing", 5s});
    ASSERT_NO_FATAL_FAILURE(phase.reach(mRig));
    ASSERT_NO_FATAL_FAILURE(restartSystemBus());
    faultIsOver();
    ASSERT_TRUE(mRig.inStep(left()));
    ASSERT_TRUE(givesRightText());
    recovered();
    phase.finish(mRig);
    if (!phase.inACall) {
        EXPECT_EQ(errOfMain(), "");
    }
}

class SystemBusGone : public OnEachBus
{};

INSTANTIATE_TEST_SUITE_P(Buses, SystemBusGone, kEachBus, busName);

TEST_P(SystemBusGone, costsAnswersOnlyWhileItIsGone)
{
    describe({named("system bus lost"),
              "every request is answered, with empty values and two lines a read, until it is back", 5s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    mRig.device().stopSystemBus();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(askText(), kNoText);
    EXPECT_EQ(mRig.device().desktop().property("GifOffsetX").value, "0");
    EXPECT_EQ(countOf(errOfMain(), "SDBusSysD: Failed to get param: 127\n"), 6U);
    mRig.device().startSystemBus();
    faultIsOver();
    ASSERT_TRUE(givesRightText());
    EXPECT_EQ(mRig.device().desktop().property("GifOffsetX").value, "10");
    recovered();
}

TEST_P(SystemBusGone, isFoundAgainBeforeEachRequestOfTheStory)
{
    describe({named("system bus restarted before each request of the start-up"),
              "empty values for a second at most; the visualisation starts", 5s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    const qv::Bytes time{0x00, 0xF1, 0x53, 0x65, 0, 0, 0, 0};
    for (const qv::Bytes& message :
         {rig::call(wire::eMethodSetTime, time), writeReg(wire::eRegWrQVStatus, {wire::kStatusRunning}),
          writeReg(wire::eRegWrQVIpAddr, text("10.0.0.5")), rig::call(wire::eMethodApplyConfig)}) {
        mRig.device().stopSystemBus();
        mRig.device().startSystemBus();
        faultIsOver();
        ASSERT_TRUE(givesRightText());
        recovered();
        EXPECT_NE(mRig.ask(message), "none");
    }
    EXPECT_TRUE(mRig.timeline().waitFor(call("LoadConfig")));
    EXPECT_EQ(mRig.timeline().missingInOrder({call("SetUnixTime"), call("SetParamInt", "0, 2"), call("LoadConfig")}),
              "");
}

} // namespace
