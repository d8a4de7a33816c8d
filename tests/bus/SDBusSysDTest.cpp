#include "dbus/SDBusSysD.h"

#include "tests/bus/BusFault.h"
#include "tests/bus/BusTest.h"
#include "tests/bus/SysDOperations.h"
#include "tests/support/Sleeper.h"

#include <csignal>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>

using sim::tBehaviour;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

class SDBusSysDTest : public BusTest
{
protected:
    explicit SDBusSysDTest(const char* callTimeOut = kPatient)
        : BusTest(callTimeOut)
    {
        fillStores(mDevice.sysd());
    }

    /// Runs the operation and compares its result and everything that it wrote.
    void expect(SDBusSysD& sysd, const tOperation& operation, const std::string& result, const std::string& lines)
    {
        SCOPED_TRACE(operation.name);
        mStderr.clear();
        EXPECT_EQ(operation.run(sysd), result);
        EXPECT_EQ(mStderr.text(), lines);
    }

    void expectWorks(SDBusSysD& sysd, const tOperation& operation)
    {
        SCOPED_TRACE(operation.name + " works");
        const std::size_t from = mark();
        expect(sysd, operation, operation.result, "");
        EXPECT_THAT(calls(from), ElementsAre(operation.call()));
    }

    void expectAllWork(SDBusSysD& sysd)
    {
        for (const tOperation& operation : sysDOperations())
            expectWorks(sysd, operation);
    }
};

class HastySDBusSysDTest : public SDBusSysDTest
{
protected:
    HastySDBusSysDTest()
        : SDBusSysDTest(kHasty)
    {}
};

} // namespace

TEST_F(SDBusSysDTest, eachOperationCallsItsMemberWithItsArgumentsAndGivesTheAnswer)
{
    SDBusSysD sysd;
    expectAllWork(sysd);
}

TEST_F(SDBusSysDTest, eachOperationIsOneCallThatWaitsForItsAnswer)
{
    SDBusSysD sysd;
    for (const tOperation& operation : sysDOperations()) {
        SCOPED_TRACE(operation.name);
        mDevice.sysd().setBehaviour("*", tBehaviour::delayed(sim::milliseconds{20}));
        const std::size_t from = mark();
        operation.run(sysd);
        const auto events = mDevice.timeline().events(from);
        ASSERT_THAT(events, SizeIs(1));
        EXPECT_TRUE(events[0].answer.has_value()) << "went on before the answer";
    }
}

TEST_F(SDBusSysDTest, settersReachTheStoresWithTheirValues)
{
    SDBusSysD sysd;
    sysd.setTime(1700000000);
    sysd.setBrightness(200);
    sysd.setBrightnessRaw(0);
    sysd.setTimeZone(0, false);
    sysd.setParamBool(eParamVisu86, true);
    sysd.setParamInt(eParamStartCode, 2147483647);
    sysd.setParamString(eParamQVIpAddr, "");
    sysd.setCfgInt("Startmode", 2);
    sysd.addCfgVar("Added");
    EXPECT_EQ(mDevice.sysd().unixTime(), 1700000000U);
    EXPECT_EQ(mDevice.sysd().brightness(), 200U);
    EXPECT_EQ(mDevice.sysd().param(172), sim::SysDaemon::Value(0));
    EXPECT_EQ(mDevice.sysd().param(111), sim::SysDaemon::Value(0));
    EXPECT_EQ(mDevice.sysd().param(112), sim::SysDaemon::Value(false));
    EXPECT_EQ(mDevice.sysd().param(86), sim::SysDaemon::Value(true));
    EXPECT_EQ(mDevice.sysd().param(211), sim::SysDaemon::Value(2147483647));
    EXPECT_EQ(mDevice.sysd().param(214), sim::SysDaemon::Value(std::string()));
    EXPECT_EQ(mDevice.sysd().cfg("Startmode"), sim::SysDaemon::CfgValue(2));
    EXPECT_TRUE(mDevice.sysd().cfg("Added").has_value());
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusSysDTest, nothingIsCached)
{
    SDBusSysD sysd;
    const std::size_t from = mark();
    for (const int value : {1, 2, 3}) {
        mDevice.sysd().setParam(25, value);
        EXPECT_EQ(sysd.getParamInt(eParamGifOffsetX), value);
    }
    EXPECT_THAT(calls(from), ElementsAre("sysd.GetParamInt u 25", "sysd.GetParamInt u 25", "sysd.GetParamInt u 25"));
}

TEST_F(SDBusSysDTest, identifiersArePrintedUnsigned)
{
    SDBusSysD sysd;
    sysd.setParamInt(static_cast<ParamE>(4294967295), 1);
    EXPECT_EQ(mStderr.text(), "SDBusSysD: Failed to set param: 4294967295\n");
}

TEST_F(SDBusSysDTest, unknownIdentifierGivesAnEmptyText)
{
    SDBusSysD sysd;
    EXPECT_EQ(sysd.getParamString(static_cast<ParamE>(9999)), "");
    EXPECT_EQ(mStderr.text(), "SDBusSysD: Failed to get param: 9999\nSDBusSysD: Failed to get param: 9999\n");
}

TEST_F(SDBusSysDTest, withoutASystemBusEveryStepFailsWithItsLine)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    SDBusSysD sysd;
    EXPECT_EQ(mStderr.text(), "SDBusSysD: failed to open DBus\n");
    for (const tOperation& operation : sysDOperations())
        expect(sysd, operation, operation.failure,
               operation.createLine + operation.appendLine + operation.callLine + operation.readLine);
    mStderr.clear();
    EXPECT_FALSE(sysd.sysDaemonReady());
    EXPECT_EQ(mStderr.text(), "");
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(SDBusSysDTest, aCallThatCannotBeCreatedFailsInEveryStep)
{
    SDBusSysD sysd;
    for (const tOperation& operation : sysDOperations()) {
        const std::size_t from = mark();
        {
            const BusFault fault("sd_bus_message_new_method_call", -ENOMEM);
            expect(sysd, operation, operation.failure,
                   operation.createLine + operation.appendLine + operation.callLine + operation.readLine);
        }
        EXPECT_THAT(calls(from), IsEmpty());
        expectWorks(sysd, operation);
    }
}

TEST_F(SDBusSysDTest, aCallThatCannotBeFilledIsNotSent)
{
    SDBusSysD sysd;
    for (const tOperation& operation : sysDOperations()) {
        if (operation.signature.empty())
            continue;
        const std::size_t from = mark();
        {
            const BusFault fault("sd_bus_message_append", -ENOMEM);
            expect(sysd, operation, operation.failure, operation.appendLine + operation.callLine + operation.readLine);
        }
        EXPECT_THAT(calls(from), IsEmpty());
        expectWorks(sysd, operation);
    }
}

TEST_F(SDBusSysDTest, absentSystemDaemon)
{
    SDBusSysD sysd;
    mDevice.sysd().goAway();
    for (const tOperation& operation : sysDOperations())
        expect(sysd, operation, operation.failure, operation.callLine + operation.readLine);
    mDevice.sysd().comeBack();
    expectAllWork(sysd);
}

TEST_F(SDBusSysDTest, answersWithAnError)
{
    SDBusSysD sysd;
    mDevice.sysd().setBehaviour("*", tBehaviour::error());
    for (const tOperation& operation : sysDOperations())
        expect(sysd, operation, operation.failure, operation.callLine + operation.readLine);
    mDevice.sysd().clearBehaviour();
    expectAllWork(sysd);
}

TEST_F(SDBusSysDTest, AnErrorThatSaysCancelledIsAFailureLikeAnyOther)
{
    const std::atomic<bool> running = true;
    SDBusSysD sysd;
    sysd.openOnlyWhile(running);
    mDevice.sysd().setBehaviour("*", tBehaviour::error("System.Error.ECANCELED"));
    for (const tOperation& operation : sysDOperations())
        expect(sysd, operation, operation.failure, operation.callLine + operation.readLine);
}

TEST_F(SDBusSysDTest, answersWithAnotherType)
{
    SDBusSysD sysd;
    mDevice.sysd().setBehaviour("*", tBehaviour::wrongType());
    for (const tOperation& operation : sysDOperations())
        expect(sysd, operation, operation.failure, operation.readLine);
    mDevice.sysd().clearBehaviour();
    expectAllWork(sysd);
}

TEST_F(SDBusSysDTest, answersWithoutAValue)
{
    SDBusSysD sysd;
    mDevice.sysd().setBehaviour("*", tBehaviour::empty());
    for (const tOperation& operation : sysDOperations())
        expect(sysd, operation, operation.failure, operation.readLine);
    mDevice.sysd().clearBehaviour();
    expectAllWork(sysd);
}

TEST_F(HastySDBusSysDTest, silentSystemDaemon)
{
    mDevice.sysd().setBehaviour("*", tBehaviour::silent());
    std::vector<std::string> expected;
    std::vector<std::thread> threads; // each with a client of its own: they time out together
    for (const tOperation& operation : sysDOperations()) {
        threads.emplace_back([&operation] {
            SDBusSysD sysd;
            EXPECT_EQ(operation.run(sysd), operation.failure) << operation.name;
        });
        expected.push_back(operation.callLine);
        if (!operation.readLine.empty())
            expected.push_back(operation.readLine);
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(mStderr.writes(), ::testing::UnorderedElementsAreArray(expected));
}

TEST_F(HastySDBusSysDTest, nextCallsAfterOneThatWasNotAnsweredWork)
{
    SDBusSysD sysd;
    mDevice.sysd().setBehaviour("*", tBehaviour::silent());
    EXPECT_EQ(sysd.getParamInt(eParamTimeZone), 0);
    EXPECT_FALSE(sysd.sysDaemonReady());
    mDevice.sysd().clearBehaviour();
    expectAllWork(sysd);
}

TEST_F(SDBusSysDTest, systemDaemonRestartsInTheMiddleOfACall)
{
    SDBusSysD sysd;
    for (const tOperation& operation : sysDOperations()) {
        mDevice.sysd().setBehaviour("*", tBehaviour::crash(sim::milliseconds{0}).times(1));
        const std::size_t from = mark();
        expect(sysd, operation, operation.failure, operation.callLine + operation.readLine);
        EXPECT_THAT(calls(from), ElementsAre(operation.call()));
        mDevice.sysd().comeBack();
        expectWorks(sysd, operation);
    }
}

TEST_F(SDBusSysDTest, busIsLostInTheMiddleOfACallAndLaterCallsFailAtOnce)
{
    SDBusSysD sysd;
    mDevice.sysd().setBehaviour("*", tBehaviour::silent());
    std::thread killer([this] {
        mDevice.timeline().waitFor(sim::match::call("GetParamInt"));
        mDevice.stopSystemBus();
    });
    EXPECT_EQ(sysd.getParamInt(eParamTimeZone), 0);
    killer.join();
    EXPECT_EQ(mStderr.text(), "SDBusSysD: Failed to get param: 111\nSDBusSysD: Failed to get param: 111\n");
    for (const tOperation& operation : sysDOperations())
        expect(sysd, operation, operation.failure, operation.callLine + operation.readLine);
    EXPECT_FALSE(sysd.sysDaemonReady());
}

TEST_F(SDBusSysDTest, textThatIsNotUtf8IsNotSentAndTheConnectionLives)
{
    SDBusSysD sysd;
    const std::string bad = "key\xff\xc0";
    struct tCase
    {
        std::function<void()> run;
        std::string lines;
    };
    const std::string append = "SDBusSysD: Failed to append dbus msg\n";
    const std::string get = "SDBusSysD: Failed to get cfg: " + bad + "\n";
    const std::string set = "SDBusSysD: Failed to set cfg: " + bad + "\n";
    const tCase cases[] = {
        {[&] { sysd.setParamString(eParamWebUrl, bad); }, append + "SDBusSysD: Failed to set param: 90\n"},
        {[&] { EXPECT_EQ(sysd.getCfgInt(bad), 0); }, append + get + get},
        {[&] { EXPECT_FALSE(sysd.getCfgBool(bad)); }, append + get + get},
        {[&] { EXPECT_EQ(sysd.getCfgString(bad), ""); }, append + get + get},
        {[&] { sysd.setCfgString(bad, "value"); }, append + set},
        {[&] { sysd.setCfgString("VisuURL", bad); }, append + "SDBusSysD: Failed to set cfg: VisuURL\n"},
        {[&] { sysd.setCfgInt(bad, 1); }, append + set},
        {[&] { sysd.addCfgVar(bad); }, append + "SDBusSysD: Failed to add cfg var: " + bad + "\n"},
    };
    for (const tCase& one : cases) {
        SCOPED_TRACE(one.lines);
        const std::size_t from = mark();
        mStderr.clear();
        one.run();
        EXPECT_EQ(mStderr.text(), one.lines);
        EXPECT_THAT(calls(from), IsEmpty());
        expectAllWork(sysd);
    }
}

TEST_F(SDBusSysDTest, emptyAndVeryLongTextsPass)
{
    SDBusSysD sysd;
    const std::string text(50'000, 'x');
    mDevice.sysd().setCfg("", "");
    mDevice.sysd().setCfg(text, "");
    for (const std::string& key : {std::string(), text}) {
        for (const std::string& value : {std::string(), text, std::string("Gr\xc3\xbc\xc3\x9f Gott")}) {
            sysd.setCfgString(key, value);
            EXPECT_EQ(sysd.getCfgString(key), value);
        }
    }
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusSysDTest, everyLineIsOneWrite)
{
    SDBusSysD sysd;
    mDevice.sysd().goAway();
    for (const tOperation& operation : sysDOperations()) {
        SCOPED_TRACE(operation.name);
        mStderr.clear();
        operation.run(sysd);
        if (operation.readLine.empty())
            EXPECT_THAT(mStderr.writes(), ElementsAre(operation.callLine));
        else
            EXPECT_THAT(mStderr.writes(), ElementsAre(operation.callLine, operation.readLine));
    }
}

// ---- The store's numbers

TEST_F(SDBusSysDTest, parametersTravelAsTheNumbersOfTheStore)
{
    const std::pair<ParamE, std::uint32_t> params[] = {
        {eParamVisuMode, 0},     {eParamNetHostname, 1},   {eParamNetMode, 2},         {eParamNetIpAddress, 3},
        {eParamNetNetmask, 4},   {eParamNetGateway, 5},    {eParamNetDnsActivated, 6}, {eParamNetDnsDomain, 7},
        {eParamNetDnsMode, 8},   {eParamNetDnsServer0, 9}, {eParamNetDnsServer1, 10},  {eParamNetDnsServer2, 11},
        {eParamOrientation, 24}, {eParamGifOffsetX, 25},   {eParamGifOffsetY, 26},     {eParamGifDelayMS, 27},
        {eParamUpdateMode, 61},  {eParamUpdatePath, 66},   {eParamVncServer, 80},      {eParamVisu86, 86},
        {eParamWebUrl, 90},      {eParamShowLogos, 92},    {eParamTimeZone, 111},      {eParamTimeZoneFlag, 112},
        {eParamRegText127, 127}, {eParamReg172, 172},      {eParamReg180, 180},        {eParamReg181, 181},
        {eParamListB, 190},      {eParamListBCount, 191},  {eParamListACount, 200},    {eParamShowQVStatus, 210},
        {eParamStartCode, 211},  {eParamQVIpAddr, 214},
    };
    SDBusSysD sysd;
    for (const auto& [param, number] : params) {
        const std::size_t from = mark();
        sysd.getParamInt(param);
        EXPECT_THAT(calls(from), ElementsAre("sysd.GetParamInt u " + std::to_string(number)));
    }
}

// ---- Ready

TEST_F(SDBusSysDTest, readyIsThePropertyReadAnewEachTime)
{
    SDBusSysD sysd;
    for (const bool ready : {true, false, true}) {
        mDevice.sysd().setReady(ready);
        EXPECT_EQ(sysd.sysDaemonReady(), ready);
    }
    EXPECT_THAT(calls(), ElementsAre("sysd.Ready", "sysd.Ready", "sysd.Ready"));
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(HastySDBusSysDTest, notReadyWhateverFailsAndNothingIsWritten)
{
    SDBusSysD sysd;
    for (const tBehaviour& behaviour :
         {tBehaviour::error(), tBehaviour::wrongType(), tBehaviour::empty(), tBehaviour::silent()}) {
        mDevice.sysd().setBehaviour("Ready", behaviour);
        EXPECT_FALSE(sysd.sysDaemonReady());
    }
    mDevice.sysd().clearBehaviour();
    mDevice.sysd().goAway();
    EXPECT_FALSE(sysd.sysDaemonReady());
    mDevice.sysd().comeBack();
    EXPECT_TRUE(sysd.sysDaemonReady());
    EXPECT_EQ(mStderr.text(), "");
}

// ---- A bus that comes late, is lost, or has become useless

namespace {

/// Asks until it is ready: the bus is looked for once a second.
bool becomesReady(SDBusSysD& sysd)
{
    const auto end = sim::Clock::now() + sim::kDeadline;
    while (!sysd.sysDaemonReady()) {
        if (sim::Clock::now() > end)
            return false;
        std::this_thread::sleep_for(sim::milliseconds{20});
    }
    return true;
}

} // namespace

TEST_F(SDBusSysDTest, AskingForReadinessFindsABusThatComesLate)
{
    mDevice.stopSystemBus();
    SDBusSysD sysd;
    EXPECT_EQ(mStderr.text(), "SDBusSysD: failed to open DBus\n");
    mStderr.clear();
    EXPECT_FALSE(sysd.sysDaemonReady());
    mDevice.startSystemBus();
    EXPECT_TRUE(becomesReady(sysd));
    EXPECT_EQ(mStderr.text(), "");
    expectAllWork(sysd);
}

TEST_F(SDBusSysDTest, AnyCallFindsABusThatWasLostAndCameBack)
{
    SDBusSysD sysd;
    for (std::size_t i = 0; i < 3; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds{1001}); // since the bus was opened
        mDevice.stopSystemBus();
        mDevice.startSystemBus();
        expectWorks(sysd, sysDOperations()[i]);
    }
    expectAllWork(sysd);
}

TEST_F(SDBusSysDTest, LookingForABusThatIsAwayAddsNoLine)
{
    SDBusSysD sysd;
    mDevice.stopSystemBus();
    const auto end = sim::Clock::now() + sim::milliseconds{1500};
    while (sim::Clock::now() < end) {
        mStderr.clear();
        EXPECT_EQ(sysd.getParamInt(eParamTimeZone), 0);
        EXPECT_EQ(mStderr.text(), "SDBusSysD: Failed to get param: 111\nSDBusSysD: Failed to get param: 111\n");
        std::this_thread::sleep_for(sim::milliseconds{50});
    }
}

// ---- Several threads

TEST_F(SDBusSysDTest, callsOfSeveralThreadsFollowOneAnother)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 10;
    SDBusSysD sysd;
    std::mutex mutex;
    std::string order; // a letter for each call that came in and each answer that went out
    mDevice.timeline().listen([&](const sim::tEvent&, bool later) {
        const std::lock_guard lock(mutex);
        order += later ? 'a' : 'c';
    });
    mDevice.sysd().setBehaviour("*", tBehaviour::delayed(sim::milliseconds{2}));
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&sysd, i] {
            for (int round = 0; round < kRounds; ++round) {
                switch (i) {
                case 0:
                    EXPECT_EQ(sysd.getParamInt(eParamGifDelayMS), 40);
                    break;
                case 1:
                    sysd.setCfgString("VisuURL", "http://10.0.0.5/");
                    break;
                case 2:
                    sysd.configureNetIf("eth0", {});
                    break;
                default:
                    EXPECT_TRUE(sysd.sysDaemonReady());
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    mDevice.timeline().listen({});
    std::string expected;
    for (int i = 0; i < kThreads * kRounds; ++i)
        expected += "ca";
    const std::lock_guard lock(mutex);
    EXPECT_EQ(order, expected);
    EXPECT_EQ(mStderr.text(), "");
}

// ---- Late answers

TEST_F(HastySDBusSysDTest, answersThatComeTooLateDoNotPileUp)
{
    constexpr std::size_t kLate = 6;
    constexpr std::size_t kAnswer = 200'000;
    SDBusSysD sysd;
    mDevice.sysd().setCfg("Big", std::string(kAnswer, 'x').c_str());
    const auto measure = [&] {
        EXPECT_EQ(sysd.getParamInt(eParamGifDelayMS), 40); // what came too late came in before this answer
        mDevice.timeline().clear();
        return allocatedBytes();
    };
    EXPECT_EQ(sysd.getCfgString("Big").size(), kAnswer);
    const std::size_t before = measure();
    mDevice.sysd().setBehaviour("GetCfgString", tBehaviour::held());
    const std::size_t from = mark();
    for (std::size_t i = 0; i < kLate; ++i) {
        EXPECT_EQ(sysd.getCfgString("Big"), "");
        mDevice.sysd().release();
    }
    ASSERT_TRUE(mDevice.timeline().waitForCount(
        [](const sim::tEvent& event) { return event.member == "GetCfgString" && event.answer; }, kLate, from));
    mDevice.sysd().clearBehaviour();
    EXPECT_TRUE(sysd.sysDaemonReady());
    EXPECT_LT(measure(), before + 3 * kAnswer);
    EXPECT_EQ(sysd.getCfgString("Big").size(), kAnswer);
}

// ---- Signals

namespace {

void onSignal(int) {}

/// Stop signals that come to this thread again and again from the moment at which a call of the member arrived.
class SignalsDuring
{
public:
    SignalsDuring(sim::Timeline& timeline, const std::string& member)
        : mBefore(std::signal(SIGUSR1, onSignal))
        , mThread([this, &timeline, member, caller = pthread_self()] {
            timeline.waitFor(sim::match::call(member));
            const auto ended = mEnd.get_future();
            do
                pthread_kill(caller, SIGUSR1);
            while (ended.wait_for(std::chrono::milliseconds(5)) == std::future_status::timeout);
        })
    {}
    SignalsDuring(const SignalsDuring&) = delete;
    SignalsDuring& operator=(const SignalsDuring&) = delete;
    ~SignalsDuring()
    {
        mEnd.set_value();
        mThread.join();
        std::signal(SIGUSR1, mBefore);
    }

private:
    void (*mBefore)(int);
    std::promise<void> mEnd;
    std::thread mThread;
};

} // namespace

TEST_F(SDBusSysDTest, stopSignalDuringASlowCallDoesNotSpoilIt)
{
    SDBusSysD sysd;
    for (const tOperation& operation : sysDOperations()) {
        mDevice.timeline().clear();
        mDevice.sysd().setBehaviour("*", tBehaviour::delayed(sim::milliseconds{150}).times(1));
        const SignalsDuring signals(mDevice.timeline(), operation.member);
        expectWorks(sysd, operation);
    }
}

TEST_F(SDBusSysDTest, stopSignalDuringASlowCallThatFailsLeavesItsFailure)
{
    SDBusSysD sysd;
    mDevice.sysd().setBehaviour("*", tBehaviour::delayed(sim::milliseconds{150}));
    const SignalsDuring signals(mDevice.timeline(), "GetParamString");
    EXPECT_EQ(sysd.getParamString(static_cast<ParamE>(9999)), "");
    EXPECT_EQ(mStderr.text(), "SDBusSysD: Failed to get param: 9999\nSDBusSysD: Failed to get param: 9999\n");
}

TEST_F(HastySDBusSysDTest, stopSignalDuringACallThatIsNeverAnsweredLeavesItsTimeOut)
{
    SDBusSysD sysd;
    mDevice.sysd().setBehaviour("GetParamInt", tBehaviour::silent());
    {
        const SignalsDuring signals(mDevice.timeline(), "GetParamInt");
        EXPECT_EQ(sysd.getParamInt(eParamTimeZone), 0);
    }
    EXPECT_EQ(mStderr.text(), "SDBusSysD: Failed to get param: 111\nSDBusSysD: Failed to get param: 111\n");
    mStderr.clear();
    EXPECT_EQ(sysd.getParamString(eParamRegText127), "1.4.2");
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusSysDTest, stopSignalDuringACallWhoseServiceGoesAway)
{
    SDBusSysD sysd;
    mDevice.sysd().setBehaviour("GetParamInt", tBehaviour::silent());
    std::thread leaver([this, caller = pthread_self()] {
        mDevice.timeline().waitFor(sim::match::call("GetParamInt"));
        pthread_kill(caller, SIGUSR1);
        mDevice.sysd().crash();
    });
    {
        const SignalsDuring signals(mDevice.timeline(), "GetParamInt");
        EXPECT_EQ(sysd.getParamInt(eParamTimeZone), 0);
    }
    leaver.join();
    EXPECT_EQ(mStderr.text(), "SDBusSysD: Failed to get param: 111\nSDBusSysD: Failed to get param: 111\n");
}

TEST_F(SDBusSysDTest, stopSignalDuringACallThatMayTakeForEver)
{
    setenv("SYSTEMD_BUS_TIMEOUT", "infinity", 1);
    SDBusSysD sysd;
    mDevice.sysd().setBehaviour("GetParamInt", tBehaviour::delayed(sim::milliseconds{150}));
    const SignalsDuring signals(mDevice.timeline(), "GetParamInt");
    EXPECT_EQ(sysd.getParamInt(eParamGifDelayMS), 40);
    EXPECT_EQ(mStderr.text(), "");
}

// ---- Stop

TEST_F(HastySDBusSysDTest, AStopCutsNoCallShort)
{
    const std::atomic<bool> running = false;
    SDBusSysD sysd;
    sysd.openOnlyWhile(running);
    mDevice.sysd().setBehaviour("GetParamInt", tBehaviour::silent().times(1));
    EXPECT_EQ(sysd.getParamInt(eParamGifDelayMS), 0); // after the whole second
    for (int i = 0; i < 3; ++i) {
        mDevice.sysd().setBehaviour("GetParamInt", tBehaviour::delayed(sim::milliseconds{200}).times(1));
        EXPECT_EQ(sysd.getParamInt(eParamGifDelayMS), 40);
    }
}

TEST_F(SDBusSysDTest, AfterStopNoCallBeginsAndNoValueIsMadeUp)
{
    SDBusSysD sysd;
    sysd.stop();
    for (const tOperation& operation : sysDOperations())
        EXPECT_THROW(operation.run(sysd), BusStopped) << operation.name;
    EXPECT_FALSE(sysd.sysDaemonReady());
    EXPECT_EQ(mStderr.text(), "");
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(SDBusSysDTest, stopLetsTheCallUnderWayEnd)
{
    SDBusSysD sysd;
    mDevice.sysd().setBehaviour("GetParamInt", tBehaviour::delayed(sim::milliseconds{200}));
    auto underWay = std::async(std::launch::async, [&] { return sysd.getParamInt(eParamGifDelayMS); });
    ASSERT_TRUE(mDevice.timeline().waitFor(sim::match::call("GetParamInt")));
    sysd.stop();
    EXPECT_THROW(sysd.getParamInt(eParamGifDelayMS), BusStopped);
    EXPECT_EQ(underWay.get(), 40);
    EXPECT_THAT(calls(), ElementsAre("sysd.GetParamInt u 27"));
}

TEST_F(SDBusSysDTest, StopEndsTheWaitForABusThatSaysNothing)
{
    const CallTimeOut timeOut("5s");
    mDevice.stopSystemBus();
    unlink(mDevice.systemBus().socket().c_str());
    const sim::UniqueFd silent = sim::listenAt(mDevice.systemBus().socket());
    SDBusSysD sysd;
    Sleeper caller([&] { EXPECT_THROW(sysd.getParamInt(eParamGifDelayMS), BusStopped); });
    EXPECT_TRUE(caller.fallsAsleep());
    sysd.stop();
}
