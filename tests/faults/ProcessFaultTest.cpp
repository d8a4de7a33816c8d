#include "tests/faults/FaultTest.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>

namespace {

using namespace rig;
using namespace std::chrono_literals;
using sim::exited;
using sim::killed;
using sim::UniqueFd;
using sim::match::call;

/// The daemon is killed right after the n-th event of its start-up story, for ten values of n.
class KilledInTheStory : public FaultTest, public ::testing::WithParamInterface<std::size_t>
{
protected:
    /// Until the daemon is dead or has been told everything.
    void tellWhatIsHeard()
    {
        mRig.peer().setTimeout(100ms);
        for (const qv::Bytes& message :
             {writeReg(wire::eRegWrQVProtVersion, {7}), rig::call(wire::eMethodSetTime, qv::Bytes(8, 1)),
              writeReg(wire::eRegWrQVStatus, {wire::kStatusRunning}), readReg(wire::eRegRdHundredthsList),
              readReg(wire::eRegRdByteList), writeReg(wire::eRegWrQVIpAddr, text("10.0.0.5")),
              rig::call(wire::eMethodApplyConfig)})
            while (mRig.daemon().running() && mRig.ask(message) == "none") {
            }
        mRig.peer().setTimeout(kDeadline);
    }

    void killAtEvent(std::size_t number)
    {
        std::atomic<std::size_t> seen = 0;
        mRig.timeline().listen([&](const sim::tEvent&, bool later) {
            if (!later && ++seen == number)
                mRig.daemon().signal(SIGKILL);
        });
        mRig.start();
        tellWhatIsHeard();
        const auto exit = mRig.daemon().waitExit();
        mRig.timeline().listen({});
        ASSERT_EQ(exit, killed(SIGKILL)) << "there were only " << seen << " events";
        EXPECT_EQ(sanitizerReport(mRig.daemon().err()), "");
    }
};

constexpr std::size_t kPointsPerTest = 10;

TEST_P(KilledInTheStory, servesAgainAfterTheNextStart)
{
    const std::size_t first = GetParam();
    describe({"killed with SIGKILL at events " + std::to_string(first) + " to " +
                  std::to_string(first + kPointsPerTest - 1) + " of the start-up story",
              "nothing any more; the next start serves (the slowest of ten is measured)", 5s});
    mRig.device().sysd().setParam(211, 5);
    for (std::size_t point = first; point < first + kPointsPerTest; ++point) {
        SCOPED_TRACE(point);
        ASSERT_NO_FATAL_FAILURE(killAtEvent(point));
        faultIsOver();
        mRig.start();
        ASSERT_TRUE(mRig.serves(left()));
        recovered();
        EXPECT_EQ(mRig.device().sysd().param(211), sim::SysDaemon::Value(0)); // used up by one start or the next
        mRig.daemon().kill();
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, KilledInTheStory, ::testing::Values(1U, 11U, 21U, 31U, 41U),
                         [](const auto& row) { return "FromEvent" + std::to_string(row.param); });

using ProcessFault = FaultTest;

TEST_F(ProcessFault, suspended)
{
    describe({"suspended (SIGSTOP, SIGCONT)", "nothing; the request that waited is served", 2s});
    ASSERT_NO_FATAL_FAILURE(serve());
    mRig.daemon().signal(SIGSTOP);
    mRig.peer().setTimeout(300ms);
    EXPECT_EQ(askText(), "none");
    mRig.peer().setTimeout(kDeadline);
    mRig.daemon().signal(SIGCONT);
    faultIsOver();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
}

TEST_F(ProcessFault, stoppedByASignal)
{
    describe({"stopped by SIGTERM", "the next request's reply, the stop line, status 0; the next start serves", 5s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    EXPECT_EQ(mRig.stop(), exited(0));
    EXPECT_THAT(mRig.daemon().out(), ::testing::EndsWith(kStopped));
    faultIsOver();
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
}

TEST_F(ProcessFault, stoppedByMethodFour)
{
    describe({"stopped by method 4", "its reply, the stop line, status 0; the next start serves", 5s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    EXPECT_EQ(mRig.stopByUpdate(), exited(0));
    EXPECT_THAT(mRig.daemon().out(), ::testing::EndsWith(kStopped));
    faultIsOver();
    mRig.start();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
}

/// So many that the daemon gets up to somewhere in its start: it may wait, end with status 0 or serve, but not crash.
TEST_F(ProcessFault, outOfFileDescriptorsAtTheStart)
{
    describe({"out of file descriptors at the start (3 to 14 of them)",
              "waits for the system daemon, or ends with status 0, or serves without its service object; never a crash",
              5s});
    std::size_t served = 0;
    std::size_t waited = 0;
    for (int limit = 3; limit <= 14; ++limit) {
        SCOPED_TRACE(limit);
        sim::Daemon::tOptions options;
        options.wrapper = {"prlimit", "--nofile=" + std::to_string(limit)};
        mRig.start(options);
        const auto end = Clock::now() + kDeadline;
        bool waits = false;
        bool serves = false;
        while (!waits && !serves && mRig.daemon().running()) {
            ASSERT_LT(Clock::now(), end) << "it does nothing of what it may do";
            waits = mRig.daemon().waitForOutput(kWaiting, 100ms, 2);
            serves = !waits && mRig.inStep(milliseconds{0});
        }
        waited += waits ? 1 : 0;
        served += serves ? 1 : 0;
        if (serves) {
            EXPECT_EQ(askText(), kText);
        } else if (!waits) { // the dynamic loader ends it with status 127 when it cannot open a library
            const auto exit = mRig.daemon().waitExit();
            EXPECT_TRUE(exit == exited(0) || exit == exited(127)) << exit->text();
        }
        mRig.daemon().kill();
        EXPECT_EQ(sanitizerReport(mRig.daemon().err()), "");
    }
    EXPECT_GE(waited, 1U);
    EXPECT_GE(served, 1U);
    faultIsOver();
    mRig.start();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
}

TEST_F(ProcessFault, outOfFileDescriptorsInService)
{
    describe({"out of file descriptors in service",
              "the link is served; the visualisation starts without logos, the exit of the idle application is lost, "
              "each with a line",
              10s});
    ASSERT_NO_FATAL_FAILURE(serveWithService());
    rlimit before{};
    ASSERT_EQ(prlimit(mRig.daemon().pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit noMore{3, before.rlim_max};
    ASSERT_EQ(prlimit(mRig.daemon().pid(), RLIMIT_NOFILE, &noMore, nullptr), 0);
    ASSERT_TRUE(mRig.playStory());
    EXPECT_EQ(askText(), kText);
    ASSERT_TRUE(mRig.daemon().waitForOutput("Vorlan: Failed to open dbus\n"));
    EXPECT_EQ(errOfMain(), "SDBusLogoHandler: Failed to open user dbus: Too many open files\n"
                           "Vorlan: Failed to open dbus\n");
    ASSERT_EQ(prlimit(mRig.daemon().pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    faultIsOver();
    ASSERT_TRUE(mRig.device().desktop().showQmx().ok);
    ASSERT_TRUE(mRig.timeline().waitFor(call("Exit"), 0, left()));
    recovered();
}

/// What becomes of the log.
struct tOutputFault
{
    const char* name;
    const char* words;
    const char* shows;
    const char* redirections; ///< by the shell; none: standard output is the descriptor
    UniqueFd (*open)();
};

UniqueFd none()
{
    return {};
}

void PrintTo(const tOutputFault& row, std::ostream* out)
{
    *out << row.name;
}

class OutputFault : public FaultTest, public ::testing::WithParamInterface<tOutputFault>
{};

TEST_P(OutputFault, isOfNoConsequence)
{
    describe({GetParam().words, GetParam().shows, 5s});
    const UniqueFd out = GetParam().open();
    sim::Daemon::tOptions options;
    options.stdoutFd = out.get();
    if (*GetParam().redirections != '\0')
        options.wrapper = {"/bin/sh", "-c", std::string("exec \"$0\" \"$@\" ") + GetParam().redirections};
    faultIsOver();
    mRig.start(options);
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
    ASSERT_TRUE(mRig.playStory());
    EXPECT_EQ(mRig.stopByUpdate(), exited(0));
    EXPECT_EQ(mRig.peer().counts().broken, 0U);
}

const tOutputFault kOutputFaults[] = {
    {"OutputClosed", "standard output closed", "everything but its lines", "1>&-", none},
    {"ErrorsClosed", "standard error closed", "everything but its lines", "2>&-", none},
    {"AllClosed", "all standard descriptors closed", "everything but its lines", "0<&- 1>&- 2>&-", none},
    {"OutputFull", "standard output full", "everything but its lines", "",
     [] { return UniqueFd(open("/dev/full", O_WRONLY | O_CLOEXEC)); }},
    {"NobodyReadsTheOutput", "standard output a pipe without a reader", "everything but its lines", "",
     [] {
         int ends[2] = {-1, -1};
         if (pipe2(ends, O_CLOEXEC) == 0)
             close(ends[0]);
         return UniqueFd(ends[1]);
     }},
};

INSTANTIATE_TEST_SUITE_P(Faults, OutputFault, ::testing::ValuesIn(kOutputFaults),
                         [](const auto& row) { return row.param.name; });

} // namespace
