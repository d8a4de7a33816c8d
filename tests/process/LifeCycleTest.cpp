#include "tests/process/RigTest.h"

#include <atomic>
#include <csignal>
#include <fstream>
#include <thread>

namespace {

using namespace rig;
using sim::ChannelE;
using sim::exited;
using sim::KindE;
using sim::match::call;

class LifeCycle : public RigTest
{
protected:
    /// All calls on the system bus so far, as "Member(arguments)".
    std::vector<std::string> systemBusCalls()
    {
        std::vector<std::string> out;
        for (const sim::tEvent& event : mRig.timeline().events())
            if (event.channel == ChannelE::eSystemBus && event.kind == KindE::eCall)
                out.push_back(event.member + "(" + event.arguments + ")");
        return out;
    }

    /// The signal was sent and the daemon has taken it.
    bool signalTaken(int number)
    {
        mRig.daemon().signal(number);
        const auto end = Clock::now() + kDeadline;
        const std::string path = "/proc/" + std::to_string(mRig.daemon().pid()) + "/status";
        while (Clock::now() < end) {
            std::ifstream status(path);
            std::string word;
            while (status >> word && word != "ShdPnd:") {
            }
            if (status >> word && word.find_first_not_of('0') == std::string::npos)
                return true;
        }
        return false;
    }

    /// The daemon, which was told to stop, ends now that nothing holds it up any more.
    void expectEnd(const std::string& how, const std::string& stage)
    {
        constexpr milliseconds kBound{4000};
        const auto from = Clock::now();
        EXPECT_EQ(mRig.daemon().waitExit(kBound), exited(0));
        record("stop by " + how + ": " + stage, "the start is finished first, status 0", kBound,
               std::chrono::ceil<milliseconds>(Clock::now() - from));
    }

    std::string out() { return mRig.daemon().out(); }
    std::string err() { return mRig.daemon().err(); }
    /// Standard error without the lines of the status service, which writes on a thread of its own.
    std::string errOfMain() { return linesWithout(err(), "SDBusManager: "); }

    /// The life of a daemon that was asked to stop after its service had come up.
    void expectQuietLife()
    {
        EXPECT_EQ(out(), std::string(kStarted) + kStopped);
        EXPECT_EQ(err(), std::string(kRetrying) + kStopping);
    }
};

const std::vector<std::string> kFirstCalls = {
    "Ready()",
    R"(AddCfgVar("UpdateMode"))",
    R"(AddCfgVar("UpdatePath"))",
    R"(AddCfgVar("UpdateTrigger"))",
    R"(AddCfgVar("BootLogoMD5Sum"))",
    R"(AddCfgVar("AnimatedBootLogoMD5Sum"))",
    "GetParamInt(24)",
    R"(GetCfgBool("IsHypervisorSys"))",
    "GetParamInt(211)",
    "SetParamInt(211, 0)",
    "SaveConfig()",
    R"(GetCfgString("VorlanDev"))",
    R"(GetCfgInt("VorlanBaud"))",
};

TEST_F(LifeCycle, makesItsFirstCallsInOrder)
{
    ASSERT_TRUE(mRig.serve());
    EXPECT_EQ(systemBusCalls(), kFirstCalls);
}

TEST_F(LifeCycle, registersTheInternalInterfaceOnAHypervisorSystem)
{
    mRig.device().sysd().setCfg("IsHypervisorSys", true);
    ASSERT_TRUE(mRig.serve());
    std::vector<std::string> expected = kFirstCalls;
    expected.insert(expected.begin() + 8, R"(AddCfgVar("ETHInternal"))");
    EXPECT_EQ(systemBusCalls(), expected);
}

TEST_F(LifeCycle, asksForNoDeviceWhenARateIsGiven)
{
    sim::Daemon::tOptions options;
    options.arguments = {"-b", "115200", "-s", mRig.device().line().path()};
    ASSERT_TRUE(mRig.serve(options));
    EXPECT_EQ(systemBusCalls(), std::vector<std::string>(kFirstCalls.begin(), kFirstCalls.end() - 2));
}

struct tStartCode
{
    int stored;
    const char* reply; ///< to a read of register 8
    bool autoUpdate;
};

class StartCode : public LifeCycle, public ::testing::WithParamInterface<tStartCode>
{};

TEST_P(StartCode, countsForOneStart)
{
    mRig.device().sysd().setParam(211, GetParam().stored);
    mRig.device().sysd().setCfg("UpdateTrigger", 1);
    ASSERT_TRUE(mRig.serve());
    EXPECT_EQ(mRig.device().sysd().param(211), sim::SysDaemon::Value(0));
    EXPECT_EQ(mRig.timeline().missingInOrder({call("SetParamInt", "211, 0"), call("SaveConfig")}), "");
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdStartCode)), GetParam().reply);
    ASSERT_TRUE(mRig.playStory());
    EXPECT_EQ(mRig.timeline().count(call("StartUnit")), GetParam().autoUpdate ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(LifeCycle, StartCode,
                         ::testing::Values(tStartCode{0, "00 00", true}, tStartCode{5, "00 05", false},
                                           tStartCode{-1, "00 ff", false}, tStartCode{0x1234, "00 34", false},
                                           tStartCode{0x100, "00 00", true}),
                         [](const auto& row) { return "Of" + std::to_string(row.param.stored & 0xFFFF); });

struct tAbsence
{
    const char* name;
    const char* words;
    void (*begin)(sim::SysDaemon& sysd);
    void (*end)(sim::SysDaemon& sysd);
};

class WaitForSysDaemon : public LifeCycle, public ::testing::WithParamInterface<tAbsence>
{
protected:
    void begin() { GetParam().begin(mRig.device().sysd()); }
    void end() { GetParam().end(mRig.device().sysd()); }
    std::string waitingLines() { return repeated(kWaiting, countOf(out(), kWaiting)); }
};

TEST_P(WaitForSysDaemon, writesALineForEachAttemptAndThenGoesOn)
{
    begin();
    mRig.start();
    ASSERT_TRUE(mRig.daemon().waitForOutput(kWaiting, kDeadline, 10));
    EXPECT_EQ(mRig.timeline().count(call("AddCfgVar")), 0U);
    end();
    ASSERT_TRUE(mRig.inStep());
    ASSERT_TRUE(mRig.device().desktop().waitForService());
    const std::vector<std::string> calls = systemBusCalls();
    ASSERT_GE(calls.size(), kFirstCalls.size());
    EXPECT_EQ(std::vector<std::string>(calls.end() - static_cast<std::ptrdiff_t>(kFirstCalls.size()), calls.end()),
              kFirstCalls);
    EXPECT_EQ(std::ranges::count(calls, "Ready()") + static_cast<std::ptrdiff_t>(kFirstCalls.size()) - 1,
              static_cast<std::ptrdiff_t>(calls.size()));
    EXPECT_EQ(mRig.stop(), exited(0));
    EXPECT_EQ(out(), kStarted + waitingLines() + kStopped);
    EXPECT_EQ(err(), std::string(kRetrying) + kStopping);
}

TEST_P(WaitForSysDaemon, isNotCutShortByASignal)
{
    begin();
    mRig.start();
    ASSERT_TRUE(mRig.daemon().waitForOutput(kWaiting, kDeadline, 2));
    ASSERT_TRUE(signalTaken(SIGTERM));
    ASSERT_TRUE(signalTaken(SIGUSR1));
    const std::size_t soFar = countOf(out(), kWaiting);
    ASSERT_TRUE(mRig.daemon().waitForOutput(kWaiting, kDeadline, soFar + 5));
    end();
    expectEnd("SIGTERM", std::string("waiting for the system daemon, ") + GetParam().words);
    EXPECT_EQ(out(), kStarted + waitingLines() + kStopped);
    EXPECT_EQ(errOfMain(), "");
    // the start was made whole: the start code is used up, and the line was opened
    EXPECT_EQ(systemBusCalls().back(), kFirstCalls.back());
    EXPECT_EQ(mRig.timeline().count(call("SaveConfig")), 1U);
}

TEST_F(LifeCycle, readsItsStartParametersToTheEndWhenASignalComes)
{
    mRig.device().sysd().setBehaviour("GetCfgBool", sim::tBehaviour::held());
    mRig.start();
    ASSERT_TRUE(mRig.timeline().waitFor(call("GetCfgBool")));
    ASSERT_TRUE(signalTaken(SIGTERM));
    mRig.device().sysd().release();
    expectEnd("SIGTERM", "start parameters being read");
    EXPECT_EQ(systemBusCalls(), kFirstCalls);
    EXPECT_EQ(out(), std::string(kStarted) + kStopped);
    EXPECT_EQ(errOfMain(), "");
}

TEST_F(LifeCycle, waitsATenthOfASecondBetweenAttemptsHoweverManySignalsCome)
{
    mRig.device().sysd().goAway();
    const auto from = Clock::now();
    mRig.start();
    while (countOf(out(), kWaiting) < 11 && Clock::now() < from + kDeadline) {
        mRig.daemon().waitExit(milliseconds{5});
        if (countOf(out(), kWaiting) > 0) // its handlers are there
            mRig.daemon().signal(SIGUSR1);
    }
    EXPECT_GE(Clock::now() - from, milliseconds{1000});
    mRig.device().sysd().comeBack();
    EXPECT_EQ(mRig.daemon().waitExit(), exited(0));
}

TEST_F(LifeCycle, asksForExactTimers)
{
    ASSERT_TRUE(mRig.serve());
    std::ifstream slack("/proc/" + std::to_string(mRig.daemon().pid()) + "/timerslack_ns");
    std::string ns;
    ASSERT_TRUE(slack >> ns);
    EXPECT_EQ(ns, "1");
    EXPECT_EQ(mRig.stop(), exited(0));
}

const tAbsence kAbsences[] = {
    {"Absent", "which is absent", [](auto& sysd) { sysd.goAway(); }, [](auto& sysd) { sysd.comeBack(); }},
    {"NotReady", "which is not ready", [](auto& sysd) { sysd.setReady(false); },
     [](auto& sysd) { sysd.setReady(true); }},
    {"Erring", "which answers with errors", [](auto& sysd) { sysd.setBehaviour("Ready", sim::tBehaviour::error()); },
     [](auto& sysd) { sysd.clearBehaviour(); }},
    {"OfWrongType", "which answers with a wrong type",
     [](auto& sysd) { sysd.setBehaviour("Ready", sim::tBehaviour::wrongType()); },
     [](auto& sysd) { sysd.clearBehaviour(); }},
};

INSTANTIATE_TEST_SUITE_P(LifeCycle, WaitForSysDaemon, ::testing::ValuesIn(kAbsences),
                         [](const auto& row) { return row.param.name; });

struct tNoLink
{
    const char* name;
    std::vector<std::string> arguments;
    void (*prepare)(sim::SysDaemon& sysd);
    std::string err;
};

void nothing(sim::SysDaemon&) {}

class LinkThatCannotBeOpened : public LifeCycle, public ::testing::WithParamInterface<tNoLink>
{};

TEST_P(LinkThatCannotBeOpened, endsTheDaemonWithStatusZero)
{
    GetParam().prepare(mRig.device().sysd());
    sim::Daemon::tOptions options;
    options.arguments = GetParam().arguments;
    mRig.start(options);
    EXPECT_EQ(mRig.daemon().waitExit(), exited(0));
    EXPECT_EQ(out(), std::string(kStarted) + kStopped);
    EXPECT_EQ(errOfMain(), GetParam().err);
    EXPECT_EQ(countOf(err(), kStopping), 1U);
}

const std::string kPort = "SManager: initBacked: SerialPhy::";

const tNoLink kNoLinks[] = {
    {"NoSuchDevice",
     {"-s", "/dev/nowhere", "-b", "9600"},
     nothing,
     kPort + "open: failed: No such file or directory\n"},
    {"PathOfNoFolder", {"-s", "/dev/null/x", "-b", "9600"}, nothing, kPort + "open: failed: Not a directory\n"},
    {"AFolder", {"-s", "/dev", "-b", "9600"}, nothing, kPort + "open: failed: Is a directory\n"},
    {"EmptyPath", {"-s", "", "-b", "9600"}, nothing, kPort + "configurePort: port isn't open\n"},
    {"ConfiguredDeviceMissing",
     {},
     [](auto& sysd) { sysd.setCfg("VorlanDev", "/dev/nowhere"); },
     kPort + "open: failed: No such file or directory\n"},
    {"NoConfiguredDevice",
     {},
     [](auto& sysd) { sysd.removeCfg("VorlanDev"); },
     repeated("SDBusSysD: Failed to get cfg: VorlanDev\n", 2) + kPort + "configurePort: port isn't open\n"},
    {"NothingConfigured",
     {"-s", "/dev/null"},
     [](auto& sysd) {
         sysd.removeCfg("VorlanDev");
         sysd.removeCfg("VorlanBaud");
     },
     repeated("SDBusSysD: Failed to get cfg: VorlanDev\n", 2) +
         repeated("SDBusSysD: Failed to get cfg: VorlanBaud\n", 2) + kPort + "configurePort: port isn't open\n"},
};

INSTANTIATE_TEST_SUITE_P(LifeCycle, LinkThatCannotBeOpened, ::testing::ValuesIn(kNoLinks),
                         [](const auto& row) { return row.param.name; });

class StopSignal : public LifeCycle, public ::testing::WithParamInterface<int>
{};

TEST_P(StopSignal, endsTheDaemonAfterTheNextRequestAndItsReply)
{
    ASSERT_TRUE(mRig.serve());
    ASSERT_TRUE(mRig.device().desktop().waitForService());
    ASSERT_TRUE(signalTaken(GetParam()));
    ASSERT_TRUE(mRig.readTimesOut());
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdIpAddr)), "00 31 39 32 2e 31 36 38 2e 31 30 2e 32 30 00");
    EXPECT_EQ(mRig.daemon().waitExit(), exited(0));
    EXPECT_EQ(hex(mRig.leftovers()), "");
    expectQuietLife();
}

TEST_P(StopSignal, isNotSatisfiedByAFrameThatTheLinkHandlesItself)
{
    ASSERT_TRUE(mRig.serve());
    ASSERT_TRUE(mRig.device().desktop().waitForService());
    ASSERT_TRUE(signalTaken(GetParam()));
    mRig.port().write(qv::Bytes{0x02, 0x05, 0x02, 0x11, 0x00}); // too short: answered by a reset frame
    const auto header = static_cast<std::uint8_t>(qv::kResetFlag | qv::nextNumber(mRig.peer().number()));
    EXPECT_EQ(hex(mRig.receive(1)), hex(qv::toWire(qv::buildFrame(header, qv::Bytes{0x00}))));
    EXPECT_TRUE(mRig.inStep());
    EXPECT_EQ(mRig.daemon().waitExit(), exited(0));
    expectQuietLife();
}

INSTANTIATE_TEST_SUITE_P(LifeCycle, StopSignal, ::testing::Values(SIGTERM, SIGUSR1),
                         [](const auto& row) { return row.param == SIGTERM ? "Term" : "Usr1"; });

TEST_F(LifeCycle, endsOnceAfterManySignals)
{
    ASSERT_TRUE(mRig.serve());
    ASSERT_TRUE(mRig.device().desktop().waitForService());
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(signalTaken(SIGTERM));
        ASSERT_TRUE(signalTaken(SIGUSR1));
    }
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdConst0)), "00 00");
    EXPECT_EQ(mRig.daemon().waitExit(), exited(0));
    expectQuietLife();
}

TEST_F(LifeCycle, takesSignalsWhileItStops)
{
    ASSERT_TRUE(mRig.serve());
    ASSERT_TRUE(mRig.waitsForRequest());
    mRig.daemon().signal(SIGTERM);
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdConst0)), "00 00");
    std::optional<sim::tExit> exit;
    while (!exit) {
        mRig.daemon().signal(SIGTERM);
        mRig.daemon().signal(SIGUSR1);
        exit = mRig.daemon().waitExit(milliseconds{1});
    }
    EXPECT_EQ(exit, exited(0));
    EXPECT_EQ(out(), std::string(kStarted) + kStopped);
}

TEST_F(LifeCycle, diesOfASignalThatItDoesNotHandle)
{
    ASSERT_TRUE(mRig.serve());
    mRig.daemon().signal(SIGINT);
    EXPECT_EQ(mRig.daemon().waitExit(), sim::killed(SIGINT));
    EXPECT_EQ(out(), kStarted);
}

TEST_F(LifeCycle, startUpdateIsTheLastRequestAndHasOneReply)
{
    ASSERT_TRUE(mRig.serve());
    ASSERT_TRUE(mRig.device().desktop().waitForService());
    const std::uint8_t number = mRig.peer().number();
    mRig.peer().sendFrame(number, rig::call(wire::eMethodStartUpdate));
    EXPECT_EQ(mRig.daemon().waitExit(), exited(0));
    const qv::Bytes reply = qv::toWire(qv::buildFrame(qv::nextNumber(number), qv::Bytes{wire::eCmdCall}));
    EXPECT_EQ(hex(mRig.leftovers()), hex(reply));
    EXPECT_EQ(mRig.timeline().count(call("SysUpdate")), 1U);
    expectQuietLife();
}

TEST_F(LifeCycle, startUpdateRepliesBeforeItCallsTheSystemDaemon)
{
    mRig.device().sysd().setBehaviour("SysUpdate", sim::tBehaviour::silent());
    sim::Daemon::tOptions options;
    options.environment = kShortCalls;
    ASSERT_TRUE(mRig.serve(options));
    EXPECT_EQ(mRig.ask(rig::call(wire::eMethodStartUpdate)), "02");
    ASSERT_TRUE(mRig.timeline().waitFor(call("SysUpdate")));
    EXPECT_TRUE(mRig.daemon().running()); // the call has no answer yet
    EXPECT_EQ(mRig.daemon().waitExit(), exited(0));
    EXPECT_EQ(errOfMain(), "SysDDBusCtrl: Failed to call methodNoParam\n");
}

TEST_F(LifeCycle, aRequestThatWaitedForTheStartIsServed)
{
    mRig.device().sysd().goAway();
    mRig.start();
    mRig.peer().sendFrame(qv::kResetFlag | 3U, rig::call(wire::eMethodStartUpdate));
    ASSERT_TRUE(mRig.daemon().waitForOutput(kWaiting, kDeadline, 2));
    mRig.device().sysd().comeBack();
    expectEnd("method 4", "waiting for the system daemon, which is absent");
    EXPECT_EQ(hex(mRig.leftovers()), hex(qv::toWire(qv::buildFrame(4, qv::Bytes{wire::eCmdCall}))));
    EXPECT_EQ(mRig.timeline().count(call("SysUpdate")), 1U);
}

TEST_F(LifeCycle, theDesktopMayReadAllTheTime)
{
    mRig.device().logo().setDuration({});
    ASSERT_TRUE(mRig.serve());
    ASSERT_TRUE(mRig.device().desktop().waitForService());
    ASSERT_TRUE(mRig.tellStory());
    ASSERT_TRUE(mRig.timeline().waitFor(call("Start")));
    std::atomic<bool> end = false;
    std::atomic<unsigned> failed = 0;
    std::vector<std::jthread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!end)
                failed += mRig.device().desktop().allProperties().size() == 9 ? 0U : 1U;
        });
    }
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(mRig.ask(rig::writeReg(wire::eRegWrQVStatus, {static_cast<std::uint8_t>(i % 2)})), "01");
        EXPECT_EQ(mRig.ask(rig::writeReg(wire::eRegWrQVIpAddr, text("10.0.0." + std::to_string(i)))), "01");
        if (i == 20)
            mRig.device().logo().finish();
    }
    EXPECT_TRUE(mRig.timeline().waitFor(call("LoadConfig")));
    end = true;
    readers.clear();
    EXPECT_EQ(failed, 0U);
    EXPECT_EQ(mRig.device().desktop().property("StatusQV").raw, "1");
    EXPECT_EQ(mRig.device().desktop().property("IpAddrQV").raw, "10.0.0.39");
    EXPECT_EQ(mRig.stop(), exited(0));
}

} // namespace
