#include "tests/process/RigTest.h"

#include <algorithm>
#include <csignal>
#include <future>
#include <thread>

namespace {

using namespace rig;
using sim::exited;
using sim::KindE;
using sim::tBehaviour;
using sim::match::call;

/// A moment of the daemon's life at which it is stopped.
struct tStage
{
    const char* name;
    void (*reach)(Rig& rig); ///< from before the start; fails the test when it is not reached
    std::string lines;       ///< of standard output between the first and the last one
    const char* words;
    bool callUnderWay = false; ///< a bus call without an answer, which is given up after two seconds
};

const std::string kApply = "Vorlan: writeReg eRegWrQVProtVersion 7\nVorlan: ApplyConfig\n";
const std::string kLogosStarted = kApply + "Vorlan::startLogoHandler\n";
const std::string kLogosFinished = kLogosStarted + "Vorlan::startLogoHandler: finished\n";

void serve(Rig& rig)
{
    sim::Daemon::tOptions options;
    options.environment = kShortCalls;
    ASSERT_TRUE(rig.serve(options));
}

void serveWithService(Rig& rig)
{
    serve(rig);
    ASSERT_TRUE(rig.device().desktop().waitForService());
}

void expectCall(Rig& rig, const sim::Match& match)
{
    ASSERT_TRUE(rig.timeline().waitFor(match)) << match.text();
}

/// Calls of the desktop that wait for their answer while the daemon is stopped; all end before the test does.
std::vector<std::jthread> sWaiting;
/// Another owner of the daemon's name.
sim::BusPtr sOther;

const tStage kStages[] = {
    {"RightAfterTheStart", serve, "", "right after the start"},
    {"NoUserBusYet",
     [](Rig& rig) {
         rig.device().stopUserBus();
         serve(rig);
         ASSERT_TRUE(rig.daemon().waitForOutput("SDBusManager: Failed to open dbus system session: "));
     },
     "", "while there is no user bus yet"},
    {"NameTaken",
     [](Rig& rig) {
         sOther = sim::openBus(rig.device().userBus().address());
         ASSERT_GE(sd_bus_request_name(sOther.get(), "com.kelvora.vorlan", 0), 0);
         serve(rig);
         ASSERT_TRUE(rig.daemon().waitForOutput("SDBusManager: Failed to register name dbus name: File exists\n"));
     },
     "", "while the name is taken"},
    {"ServiceJustUp",
     [](Rig& rig) {
         serve(rig);
         ASSERT_TRUE(rig.device().desktop().waitForName());
     },
     "", "in the second before the service answers"},
    {"ServiceAnswers", serveWithService, "", "while the service answers"},
    {"PropertyReadUnderWay",
     [](Rig& rig) {
         serveWithService(rig);
         rig.device().sysd().setBehaviour("GetParamBool", tBehaviour::silent());
         sWaiting.emplace_back([&rig] { rig.device().desktop().property("ShowLogos"); });
         expectCall(rig, call("GetParamBool", "92"));
     },
     "", "property read under way", true},
    {"DiagnosticsPageUnderWay",
     [](Rig& rig) {
         serveWithService(rig);
         rig.device().sysd().setBehaviour("SetCfgInt", tBehaviour::silent());
         sWaiting.emplace_back([&rig] { rig.device().desktop().showQmx(); });
         expectCall(rig, call("SetCfgInt"));
     },
     "", "diagnostics page under way", true},
    {"LogosToBeStarted",
     [](Rig& rig) {
         rig.device().logo().setBehaviour("Start", tBehaviour::silent());
         serveWithService(rig);
         ASSERT_TRUE(rig.tellStory());
         expectCall(rig, call("Start"));
     },
     kLogosStarted, "start of the logos under way", true},
    {"LogosUnderWay",
     [](Rig& rig) {
         rig.device().logo().setDuration({});
         serveWithService(rig);
         ASSERT_TRUE(rig.tellStory());
         expectCall(rig, call("Start"));
     },
     kLogosStarted, "logos under way"},
    {"VisualisationBeingSetUp",
     [](Rig& rig) {
         serveWithService(rig);
         rig.device().sysd().setBehaviour("GetCfgString", tBehaviour::silent());
         ASSERT_TRUE(rig.tellStory());
         expectCall(rig, call("GetCfgString", "\"VisuURL\""));
     },
     kLogosFinished, "visualisation being set up", true},
    {"VisualisationBeingSetUpWithoutAService",
     [](Rig& rig) {
         rig.device().stopUserBus();
         serve(rig);
         rig.device().sysd().setBehaviour("GetCfgString", tBehaviour::silent());
         ASSERT_TRUE(rig.tellStory());
         expectCall(rig, call("GetCfgString", "\"VisuURL\""));
     },
     kLogosFinished, "visualisation being set up, no user bus", true},
    {"DelayedExitToCome",
     [](Rig& rig) {
         serveWithService(rig);
         ASSERT_TRUE(rig.playStory());
     },
     kLogosFinished, "delayed exit to come"},
    {"ManyDelayedExitsToCome",
     [](Rig& rig) {
         serveWithService(rig);
         ASSERT_TRUE(rig.playStory());
         for (int i = 0; i < 10; ++i)
             ASSERT_TRUE(rig.device().desktop().showQmx().ok);
     },
     kLogosFinished, "eleven delayed exits to come"},
    {"ExitUnderWay",
     [](Rig& rig) {
         serveWithService(rig);
         rig.device().idle().setBehaviour("Exit", tBehaviour::silent());
         ASSERT_TRUE(rig.device().desktop().showQmx().ok);
         ASSERT_TRUE(rig.device().desktop().showQmx().ok);
         expectCall(rig, call("Exit"));
     },
     "", "exit of the idle application under way", true},
    {"SystemDaemonGone",
     [](Rig& rig) {
         serveWithService(rig);
         rig.device().sysd().crash();
     },
     "", "system daemon gone"},
    {"SystemBusLost",
     [](Rig& rig) {
         serveWithService(rig);
         rig.device().stopSystemBus();
     },
     "", "system bus lost"},
    {"UserBusLost",
     [](Rig& rig) {
         serveWithService(rig);
         rig.device().stopUserBus();
         ASSERT_TRUE(rig.daemon().waitForOutput("SDBusManager: Failed to open dbus system session: "));
     },
     "", "user bus lost"},
    {"UserBusLostDuringTheLogos",
     [](Rig& rig) {
         rig.device().logo().setDuration({});
         serveWithService(rig);
         ASSERT_TRUE(rig.tellStory());
         expectCall(rig, call("Start"));
         rig.device().stopUserBus();
         expectCall(rig, call("LoadConfig")); // the logos are over
     },
     kLogosFinished, "user bus lost during the logos"},
};

void PrintTo(const tStage& stage, std::ostream* out)
{
    *out << stage.name;
}

class StopAtEveryStage : public RigTest, public ::testing::WithParamInterface<tStage>
{
protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(GetParam().reach(mRig)); }

    void TearDown() override
    {
        sWaiting.clear();
        sOther.reset();
        RigTest::TearDown();
    }

    milliseconds mBound{0};
    milliseconds mMeasured{0};

    /// All calls that the stand-ins got since then.
    std::vector<std::string> callsSince(std::size_t from)
    {
        std::vector<std::string> out;
        for (const sim::tEvent& event : mRig.timeline().events(from))
            if (event.kind == KindE::eCall)
                out.push_back(event.member);
        return out;
    }

    void expectEnd()
    {
        const milliseconds bound{GetParam().callUnderWay ? 7000 : 4000};
        const auto from = Clock::now();
        EXPECT_EQ(mRig.daemon().waitExit(bound), exited(0));
        mBound = bound;
        mMeasured = std::chrono::ceil<milliseconds>(Clock::now() - from);
    }

    void expectWholeOutput() { EXPECT_EQ(mRig.daemon().out(), kStarted + GetParam().lines + kStopped); }
};

TEST_P(StopAtEveryStage, byASignal)
{
    const std::size_t from = mRig.timeline().mark();
    ASSERT_TRUE(mRig.waitsForRequest());
    mRig.daemon().signal(SIGTERM);
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdConst0)), "00 00");
    expectEnd();
    record(std::string("stop by SIGTERM: ") + GetParam().words, "the reply, status 0, no further bus call", mBound,
           mMeasured);
    expectWholeOutput();
    EXPECT_EQ(countOf(mRig.daemon().err(), kStopping), 1U);
    EXPECT_EQ(callsSince(from), std::vector<std::string>{});
    EXPECT_EQ(hex(mRig.leftovers()), "");
}

TEST_P(StopAtEveryStage, byMethodFour)
{
    EXPECT_EQ(mRig.ask(rig::call(wire::eMethodStartUpdate)), "02");
    expectEnd();
    record(std::string("stop by method 4: ") + GetParam().words, "the reply, status 0", mBound, mMeasured);
    expectWholeOutput();
    EXPECT_EQ(countOf(mRig.daemon().err(), kStopping), 1U);
    EXPECT_EQ(hex(mRig.leftovers()), "");
}

INSTANTIATE_TEST_SUITE_P(Stop, StopAtEveryStage, ::testing::ValuesIn(kStages),
                         [](const auto& row) { return row.param.name; });

class Stop : public RigTest
{
protected:
    /// A reply that no line takes in one go is on its way, and nobody reads it.
    void fillTheLine()
    {
        mRig.device().sysd().setIpAddress(std::string(kLong, 'x'));
        ASSERT_TRUE(mRig.serve());
        ASSERT_TRUE(mRig.device().desktop().waitForService());
        mNumber = mRig.peer().number();
        mRig.peer().sendFrame(mNumber, readReg(wire::eRegRdIpAddr));
        mNumber = qv::nextNumber(mNumber);
        expectCall(mRig, call("GetNetIPv4Addr"));
    }

    void expectBothReplies(const qv::Bytes& second)
    {
        const qv::Bytes wire = mRig.receive(2);
        ASSERT_EQ(std::ranges::count(wire, qv::kDelimiter), 2);
        const auto firstEnd = std::ranges::find(wire, qv::kDelimiter);
        const qv::tParsedFrame first = qv::parseWire({wire.begin(), firstEnd});
        EXPECT_TRUE(first.ok());
        EXPECT_EQ(first.payload.size(), kLong + 2);
        EXPECT_EQ(hex(qv::Bytes(firstEnd + 1, wire.end())),
                  hex(qv::toWire(qv::buildFrame(qv::nextNumber(mNumber), second))));
    }

    void expectEndWithin(milliseconds bound, const char* fault, const char* shows)
    {
        const auto from = Clock::now();
        EXPECT_EQ(mRig.daemon().waitExit(bound), exited(0));
        record(fault, shows, bound, std::chrono::ceil<milliseconds>(Clock::now() - from));
    }

    static constexpr std::size_t kLong = 200'000;
    std::uint8_t mNumber = 0;
};

#ifndef __SANITIZE_THREAD__ // which has a new thread go first, always
/// The gate opens with the last request, and the daemon ends while the logo thread announces ShowLogos.
TEST_F(Stop, keepsTheLogosFromStarting)
{
    // The logo thread is kept in its announcement by the answer to its question, which comes behind the controller's.
    // When it was the faster one, or so slow that the stop came first, all is tried once more.
    for (int attempt = 0; attempt < 50; ++attempt) {
        Rig rig(kVorlan);
        sim::SysDaemon& sysd = rig.device().sysd();
        sysd.setParam(211, 1); // so that the controller asks for no update
        ASSERT_NO_FATAL_FAILURE(serveWithService(rig));
        ASSERT_TRUE(rig.tellConditions());
        sysd.setBehaviour("GetParamBool", tBehaviour::held());
        const std::size_t from = rig.timeline().mark();
        ASSERT_TRUE(rig.waitsForRequest());
        rig.daemon().signal(SIGTERM);
        rig.peer().sendFrame(rig.peer().number(), rig::call(wire::eMethodApplyConfig));
        const auto first = rig.timeline().waitFor(call("GetParamBool"), from);
        ASSERT_TRUE(first);
        if (first->arguments != "210") // for ShowQVStatus
            continue;
        sysd.release();
        ASSERT_TRUE(rig.daemon().waitForOutput(kStopping));
        if (!rig.timeline().waitFor(call("GetParamBool", "92"), from, milliseconds{0}))
            continue;
        sysd.clearBehaviour();
        sysd.release();
        EXPECT_EQ(rig.daemon().waitExit(), exited(0));
        EXPECT_EQ(rig.timeline().count(call("Start")), 0U);
        EXPECT_EQ(rig.daemon().out(), kStarted + kApply + kStopped);
        return;
    }
    FAIL() << "the logo thread was never in its announcement at the stop";
}
#endif

TEST_F(Stop, byASignalWithAReplyThatNobodyReads)
{
    ASSERT_NO_FATAL_FAILURE(fillTheLine());
    mRig.peer().sendFrame(mNumber, readReg(wire::eRegRdParamText));
    expectCall(mRig, call("GetParamString"));
    mRig.daemon().signal(SIGTERM);
    expectEndWithin(milliseconds{7000}, "stop by SIGTERM: reply that nobody reads under way",
                    "status 0 once the line has taken nothing for a second");
}

TEST_F(Stop, byMethodFourWithAReplyThatNobodyReads)
{
    ASSERT_NO_FATAL_FAILURE(fillTheLine());
    mRig.peer().sendFrame(mNumber, rig::call(wire::eMethodStartUpdate));
    expectEndWithin(milliseconds{7000}, "stop by method 4: reply that nobody reads under way",
                    "status 0 once the line has taken nothing for a second");
    EXPECT_EQ(mRig.timeline().count(call("SysUpdate")), 1U);
}

TEST_F(Stop, byASignalWithAReplyThatIsReadAtLast)
{
    ASSERT_NO_FATAL_FAILURE(fillTheLine());
    mRig.peer().sendFrame(mNumber, readReg(wire::eRegRdParamText));
    expectCall(mRig, call("GetParamString"));
    mRig.daemon().signal(SIGTERM);
    expectBothReplies({0x00, '1', '.', '4', '.', '2', 0x00});
    EXPECT_EQ(mRig.daemon().waitExit(), exited(0));
}

TEST_F(Stop, byMethodFourWithAReplyThatIsReadAtLast)
{
    ASSERT_NO_FATAL_FAILURE(fillTheLine());
    mRig.peer().sendFrame(mNumber, rig::call(wire::eMethodStartUpdate));
    expectBothReplies({0x02});
    EXPECT_EQ(mRig.daemon().waitExit(), exited(0));
}

TEST_F(Stop, doesNotSpoilTheCallUnderWay)
{
    serveWithService(mRig);
    mRig.device().sysd().setBehaviour("GetParamString", tBehaviour::delayed(milliseconds{500}));
    const std::uint8_t number = mRig.peer().number();
    mRig.peer().sendFrame(number, readReg(wire::eRegRdParamText));
    expectCall(mRig, call("GetParamString"));
    mRig.daemon().signal(SIGTERM);
    EXPECT_EQ(mRig.daemon().waitExit(), exited(0));
    const qv::Bytes reply = {0x00, '1', '.', '4', '.', '2', 0x00};
    EXPECT_EQ(hex(mRig.leftovers()), hex(qv::toWire(qv::buildFrame(qv::nextNumber(number), reply))));
    EXPECT_EQ(mRig.daemon().err(), std::string(kRetrying) + kStopping);
}

/// A request that makes many calls of a system daemon which has become slow.
TEST_F(Stop, FinishesTheRequestInHandAsOnAnyOtherDay)
{
    mRig.device().sysd().setCfg("IsHypervisorSys", true);
    serveWithService(mRig);
    ASSERT_EQ(mRig.ask(rig::call(wire::eMethodApplyConfig)), "02");
    mRig.device().sysd().setBehaviour("SetParamString", tBehaviour::delayed(milliseconds{1100}).times(1));
    mRig.device().sysd().setBehaviour("SetParamInt", tBehaviour::delayed(milliseconds{200}));
    const std::size_t from = mRig.timeline().mark();
    mRig.peer().sendFrame(mRig.peer().number(), rig::call(wire::eMethodSetNetworkCfg, text("eth0")));
    expectCall(mRig, call("SetParamString"));
    mRig.daemon().signal(SIGTERM);
    expectEndWithin(milliseconds{7000}, "stop by SIGTERM: request with slow calls under way",
                    "each call made and answered, its reply, status 0");
    EXPECT_EQ(mRig.timeline().count(call("SetParamString"), from), 9U);
    EXPECT_EQ(mRig.timeline().count(call("SetParamBool"), from), 1U);
    EXPECT_EQ(mRig.timeline().count(call("SetParamInt"), from), 1U);
    EXPECT_EQ(mRig.timeline().count(call("SaveConfig"), from), 1U);
    EXPECT_EQ(mRig.daemon().err(), std::string(kRetrying) + kStopping);
}

TEST_F(Stop, refusesTheDiagnosticsPageThatItCutsShort)
{
    serveWithService(mRig);
    mRig.device().sysd().setBehaviour("SetCfgInt", tBehaviour::silent());
    auto page = std::async(std::launch::async, [this] { return mRig.device().desktop().showQmx().ok; });
    expectCall(mRig, call("SetCfgInt"));
    EXPECT_EQ(mRig.stop(), exited(0));
    EXPECT_FALSE(page.get());
    EXPECT_EQ(mRig.timeline().count(call("SetCfgString")), 0U);
}

/// The controller's own thread waits for the service manager: no further request is needed then.
TEST_F(Stop, byASignalWhileTheUpdateUnitIsBeingStarted)
{
    mRig.device().systemd().setBehaviour("StartUnit", tBehaviour::silent());
    mRig.device().sysd().setCfg("UpdateTrigger", 1);
    mRig.device().logo().setDuration({});
    serveWithService(mRig);
    for (const qv::Bytes& message :
         {rig::call(wire::eMethodSetTime, qv::Bytes(8, 1)), writeReg(wire::eRegWrQVStatus, {wire::kStatusRunning}),
          writeReg(wire::eRegWrQVIpAddr, text("10.0.0.5"))})
        ASSERT_EQ(mRig.ask(message), hex(qv::Bytes{message[0]}));
    const std::uint8_t number = mRig.peer().number();
    mRig.peer().sendFrame(number, rig::call(wire::eMethodApplyConfig));
    expectCall(mRig, call("StartUnit"));
    mRig.daemon().signal(SIGTERM);
    expectEndWithin(milliseconds{7000}, "stop by SIGTERM: update unit being started", "the reply, status 0");
    EXPECT_EQ(hex(mRig.leftovers()), hex(qv::toWire(qv::buildFrame(qv::nextNumber(number), qv::Bytes{0x02}))));
}

} // namespace
