#include "tests/process/RigTest.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <random>
#include <thread>

namespace {

using namespace rig;
using namespace std::chrono_literals;
using sim::exited;
using sim::tBehaviour;

/// How many stops; VORLAN_STOPS asks for more, on a machine that has nothing else to do.
int stops()
{
    const char* wanted = std::getenv("VORLAN_STOPS");
    return wanted == nullptr ? 20 : std::atoi(wanted);
}

/// In the suite a stop shares the machine with other tests, and perhaps a sanitizer.
milliseconds boundOf(milliseconds alone)
{
    return std::getenv("VORLAN_STOPS") == nullptr ? std::max(alone, milliseconds{10'000}) : alone;
}

/// The daemon is stopped at a random instant of its whole start-up story, by one or the other signal, while QV goes on
/// telling it and the desktop looks on.
class StopAtARandomInstant : public RigTest
{
protected:
    /// The story, and requests without end behind it: a daemon that is to stop waits for one.
    static void tell(Rig& rig)
    {
        rig.peer().setTimeout(100ms);
        const qv::Bytes story[] = {
            writeReg(wire::eRegWrQVProtVersion, {7}),
            call(wire::eMethodSetTime, qv::Bytes(8, 1)),
            writeReg(wire::eRegWrQVStatus, {wire::kStatusRunning}),
            readReg(wire::eRegRdHundredthsList),
            readReg(wire::eRegRdByteList),
            writeReg(wire::eRegWrQVIpAddr, text("10.0.0.5")),
            call(wire::eMethodApplyConfig),
            writeReg(wire::eRegWrTimeZone, {12}),
        };
        for (std::size_t i = 0; rig.daemon().running(); ++i)
            rig.ask(i < std::size(story) ? story[i] : readReg(wire::eRegRdParamText));
    }

    /// From the signal to the end.
    milliseconds stopAfter(Rig& rig, std::chrono::microseconds instant, int signal)
    {
        rig.start();
        Clock::time_point signalled;
        std::jthread stopper([&] {
            std::this_thread::sleep_for(instant);
            signalled = Clock::now();
            rig.daemon().signal(signal);
        });
        std::jthread desktop([&](const std::stop_token& over) {
            for (int i = 0; !over.stop_requested(); ++i) {
                rig.device().desktop().allProperties(200ms);
                if (i % 10 == 9)
                    rig.device().desktop().showQmx(200ms);
                std::this_thread::sleep_for(20ms);
            }
        });
        tell(rig);
        const auto exit = rig.daemon().waitExit(kDeadline);
        const auto end = Clock::now();
        stopper.join();
        EXPECT_TRUE(exit);
        // before its handlers are there the signal itself ends it
        const bool tooEarly = rig.daemon().out().empty() || rig.daemon().out() == kStarted;
        EXPECT_TRUE(exit == exited(0) || (tooEarly && exit == sim::killed(signal))) << exit->text();
        if (exit == exited(0)) {
            EXPECT_THAT(rig.daemon().out(), ::testing::EndsWith(kStopped));
        }
        EXPECT_EQ(sanitizerReport(rig.daemon().err()), "");
        return std::chrono::ceil<milliseconds>(end - signalled);
    }

    void stopOften(milliseconds alone, const char* fault)
    {
        const milliseconds bound = boundOf(alone);
        const char* seed = std::getenv("VORLAN_SEED");
        std::minstd_rand random(seed != nullptr ? static_cast<unsigned int>(std::atoi(seed)) : 1U);
        std::uniform_int_distribution<int> instants(0, 1'500'000);
        milliseconds longest{0};
        for (int i = 0; i < stops() && !HasFailure(); ++i) {
            const std::chrono::microseconds instant{i % 2 == 0 ? instants(random) : instants(random) / 10};
            const milliseconds took = stopAfter(mRig, instant, i % 3 == 0 ? SIGUSR1 : SIGTERM);
            longest = std::max(longest, took);
            mRig.timeline().clear();
            mRig.leftovers();
        }
        EXPECT_LE(longest, bound);
        record(fault, "status 0 (the longest stop is measured)", bound, longest);
    }
};

TEST_F(StopAtARandomInstant, EndsSoonWithServicesThatAnswer)
{
    mRig.device().sysd().setCfg("UpdateTrigger", 1);
    stopOften(1000ms, "stop by SIGTERM or SIGUSR1 at a random instant of the start-up story, services that answer");
}

TEST_F(StopAtARandomInstant, EndsSoonDuringLogosWithoutEnd)
{
    mRig.device().logo().setDuration({});
    stopOften(1000ms, "stop by SIGTERM or SIGUSR1 at a random instant of the start-up story, logos without an end");
}

TEST_F(StopAtARandomInstant, EndsWithSlowServicesToo)
{
    mRig.device().sysd().setCfg("UpdateTrigger", 1);
    mRig.device().sysd().setBehaviour("*", tBehaviour::delayed(60ms));
    mRig.device().systemd().setBehaviour("*", tBehaviour::delayed(300ms));
    mRig.device().logo().setBehaviour("*", tBehaviour::delayed(300ms));
    mRig.device().idle().setBehaviour("*", tBehaviour::delayed(300ms));
    stopOften(4000ms, "stop by SIGTERM or SIGUSR1 at a random instant of the start-up story, slow services");
}

} // namespace
