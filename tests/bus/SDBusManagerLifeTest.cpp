// The service's thread: connecting, losing the bus, stopping, the watchdog; many threads at once.

#include "tests/bus/BusFault.h"
#include "tests/bus/SDBusManagerTest.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>

using sim::milliseconds;
using sim::SysDaemon;
using sim::tBehaviour;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

void SDBusManagerTest::expectStops()
{
    auto stopping = std::async(std::launch::async, [this] { mService.stop(); });
    ASSERT_EQ(stopping.wait_for(sim::kDeadline), std::future_status::ready);
    EXPECT_FALSE(mService.isRunning());
}

namespace {

using SDBusManagerLifeTest = SDBusManagerTest;

class HastySDBusManagerLifeTest : public SDBusManagerTest
{
protected:
    HastySDBusManagerLifeTest()
        : SDBusManagerTest(kHasty)
    {}
};

constexpr char kName[] = "com.kelvora.vorlan";
const std::string kRefused = "SDBusManager: Failed to open dbus system session: Connection refused\n";

} // namespace

// ---- Connecting

TEST_F(SDBusManagerLifeTest, afterASuccessfulAttemptTooTheLineIsWrittenAndASecondGoesByBeforeItAnswers)
{
    const auto before = sim::Clock::now();
    startService();
    EXPECT_GE(sim::Clock::now() - before, std::chrono::seconds(1));
    EXPECT_TRUE(mService.isRunning());
    EXPECT_THAT(mStderr.writes(), ElementsAre(kRetry));
    expectStops();
    EXPECT_THAT(mStderr.writes(), ElementsAre(kRetry, kStopping));
}

TEST_F(SDBusManagerLifeTest, withoutABusItLogsTheFailureOncePerSecondUntilStopped)
{
    mDevice.stopUserBus();
    const auto before = sim::Clock::now();
    mService.start();
    ASSERT_TRUE(mStderr.waitFor(kRetry, 3));
    EXPECT_GE(sim::Clock::now() - before, std::chrono::seconds(2));
    EXPECT_TRUE(mService.isRunning());
    expectStops();
    const std::string all = mStderr.text();
    const std::size_t attempts = countOf(all, kRetry);
    EXPECT_LE(static_cast<std::int64_t>(attempts), 1 + (sim::Clock::now() - before) / std::chrono::seconds(1));
    std::string expected;
    for (std::size_t i = 0; i < attempts; ++i)
        expected += kRefused + kRetry;
    EXPECT_EQ(all, expected + kStopping);
}

TEST_F(SDBusManagerLifeTest, busThatComesLateIsFound)
{
    mDevice.stopUserBus();
    mService.start();
    ASSERT_TRUE(mStderr.waitFor(kRefused));
    mDevice.startUserBus();
    ASSERT_TRUE(mDevice.desktop().waitForService());
    EXPECT_EQ(read("StatusQV"), "0");
    const std::string all = mStderr.text();
    EXPECT_EQ(all.substr(0, kRefused.size() + strlen(kRetry)), kRefused + kRetry);
    EXPECT_EQ(countOf(all, kRetry), countOf(all, kRefused) + 1);
}

TEST_F(SDBusManagerLifeTest, noAddressOfABusAtAll)
{
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    mService.start();
    ASSERT_TRUE(mStderr.waitFor(kRetry));
    expectStops();
    EXPECT_EQ(mStderr.text(),
              std::string("SDBusManager: Failed to open dbus system session: No medium found\n") + kRetry + kStopping);
}

TEST_F(SDBusManagerLifeTest, nameThatAnotherOwnsIsAskedForUntilItIsFree)
{
    sim::BusPtr other = sim::openBus(mDevice.userBus().address());
    ASSERT_GE(sd_bus_request_name(other.get(), kName, 0), 0);
    const std::string taken = "SDBusManager: Failed to register name dbus name: File exists\n";
    mService.start();
    ASSERT_TRUE(mStderr.waitFor(kRetry, 2));
    other.reset();
    ASSERT_TRUE(mDevice.timeline().waitFor(
        [](const sim::tEvent& event) { return event.kind == sim::KindE::eOwner && event.arguments == "absent"; }));
    ASSERT_TRUE(mDevice.desktop().waitForService());
    EXPECT_EQ(read("StatusQV"), "0");
    const std::string all = mStderr.text();
    std::string expected;
    for (std::size_t i = 0; i < countOf(all, taken); ++i)
        expected += taken + kRetry;
    EXPECT_EQ(all, expected + kRetry);
}

TEST_F(SDBusManagerLifeTest, eachStepThatFailsHasItsLineAndTheNextAttemptSucceeds)
{
    const std::pair<const char*, const char*> steps[] = {
        {"sd_event_default", "SDBusManager: Failed to create sd event: Cannot allocate memory\n"},
        {"sd_bus_add_object_vtable", "SDBusManager: Failed to register object: Cannot allocate memory\n"},
        {"sd_bus_attach_event", "SDBusManager: Failed to attach bus to event loop: Cannot allocate memory\n"},
    };
    for (const auto& [function, line] : steps) {
        mStderr.clear();
        const BusFault fault(function, -ENOMEM, 0, 1, BusFault::eAnyThread);
        mService.start();
        ASSERT_TRUE(mStderr.waitFor(kRetry, 2)) << function;
        ASSERT_TRUE(mDevice.desktop().waitForService()) << function;
        EXPECT_EQ(read("StatusQV"), "0");
        expectStops();
        EXPECT_THAT(mStderr.writes(), ElementsAre(line, kRetry, kRetry, kStopping));
    }
}

TEST_F(SDBusManagerLifeTest, canBeStartedAgain)
{
    for (int i = 0; i < 2; ++i) {
        mStderr.clear();
        startService();
        mService.start(); // it runs already
        EXPECT_EQ(read("StatusQV"), "0");
        expectStops();
        EXPECT_THAT(mStderr.writes(), ElementsAre(kRetry, kStopping));
        EXPECT_EQ(read("StatusQV"), "org.freedesktop.DBus.Error.ServiceUnknown");
    }
}

// ---- Losing the bus

TEST_F(SDBusManagerLifeTest, lostBusIsFoundAgain)
{
    startService();
    mStderr.clear();
    mDevice.stopUserBus();
    ASSERT_TRUE(mStderr.waitFor(kRefused));
    mDevice.startUserBus();
    ASSERT_TRUE(mDevice.desktop().waitForService());
    EXPECT_EQ(read("StatusQV"), "0");
    SignalWatch watch(mDevice.userBus().address());
    mService.emitOrientationChanged();
    EXPECT_EQ(watch.next().member, "OrientationChanged");
    expectStops();
    std::vector<std::string> lines = mStderr.writes();
    // an attempt while the bus is just going may fail in other words
    for (std::size_t i = 0; i + 1 < lines.size() && lines[i].starts_with("SDBusManager: Failed to ") &&
                            lines[i] != kRetry && lines[i + 1] == kRetry;)
        lines.erase(lines.begin(), lines.begin() + 2);
    EXPECT_THAT(lines, ElementsAre(kRetry, kStopping));
}

TEST_F(SDBusManagerLifeTest, busThatRestartsAtOnceIsFoundAgain)
{
    startService();
    for (int i = 0; i < 2; ++i) {
        mDevice.stopUserBus();
        mDevice.startUserBus();
        ASSERT_TRUE(mDevice.desktop().waitForService());
        EXPECT_EQ(read("StatusQV"), "0");
    }
}

TEST_F(SDBusManagerLifeTest, emittersWithoutAConnectionDoNothingAndAskNobody)
{
    const auto emitAll = [this] {
        mService.emitQVIpAddr();
        mService.emitQVStatus();
        mService.emitAnimationCfg();
        mService.emitStatusTxt();
        mService.emitShowQVStatus();
        mService.emitShowLogos();
        mService.emitOrientationChanged();
        mService.sendLogosFinished();
    };
    emitAll(); // never started
    mDevice.stopUserBus();
    mService.start();
    ASSERT_TRUE(mStderr.waitFor(kRefused));
    emitAll(); // no bus yet
    mDevice.startUserBus();
    SignalWatch watch(mDevice.userBus().address());
    ASSERT_TRUE(mDevice.desktop().waitForService());
    EXPECT_THAT(calls(), IsEmpty());
    mService.emitQVStatus();
    EXPECT_EQ(watch.next().member, "PropertiesChanged");

    mStderr.clear();
    mDevice.stopUserBus();
    ASSERT_TRUE(mStderr.waitFor(kRefused));
    emitAll(); // the bus is lost
    EXPECT_THAT(calls(), IsEmpty());
    expectStops();
    emitAll(); // stopped
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(SDBusManagerLifeTest, emitsAreSentInTheSecondBeforeItAnswers)
{
    SignalWatch watch(mDevice.userBus().address());
    mService.start();
    ASSERT_TRUE(mStderr.waitFor(kRetry)); // connected, and pausing
    mCfg->StatusQV = 4;
    mService.emitQVStatus();
    mCfg->StatusQV = 5;
    EXPECT_EQ(watch.next().body, R"("com.kelvora.vorlan", {"StatusQV": 4}, [])");
}

// ---- Stopping

TEST_F(SDBusManagerLifeTest, stopOfAServiceThatWasNeverStartedReturnsAtOnce)
{
    mService.stop();
    mService.stop();
    EXPECT_FALSE(mService.isRunning());
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusManagerLifeTest, stopRightAfterStart)
{
    for (int i = 0; i < 20; ++i) {
        mService.start();
        expectStops();
    }
    EXPECT_EQ(countOf(mStderr.text(), kStopping), 20U);
}

TEST_F(SDBusManagerLifeTest, stopInThePauseAfterAFailedAttempt)
{
    mDevice.stopUserBus();
    mService.start();
    ASSERT_TRUE(mStderr.waitFor(kRetry));
    expectStops();
    EXPECT_EQ(mStderr.text(), kRefused + kRetry + kStopping);
}

TEST_F(SDBusManagerLifeTest, stopInThePauseAfterASuccessfulAttempt)
{
    mService.start();
    ASSERT_TRUE(mStderr.waitFor(kRetry));
    expectStops();
    EXPECT_EQ(mStderr.text(), std::string(kRetry) + kStopping);
    EXPECT_EQ(read("StatusQV"), "org.freedesktop.DBus.Error.ServiceUnknown");
}

TEST_F(SDBusManagerLifeTest, stopWhileItWaitsForWork)
{
    startService();
    expectStops();
    EXPECT_EQ(read("StatusQV"), "org.freedesktop.DBus.Error.ServiceUnknown");
    EXPECT_EQ(mStderr.text(), std::string(kRetry) + kStopping);
}

TEST_F(SDBusManagerLifeTest, stopWhileClientsAsk)
{
    startService();
    std::atomic<bool> end = false;
    std::thread client([&] {
        while (!end)
            mDevice.desktop().allProperties();
    });
    mDevice.timeline().waitForCount(sim::match::call("GetParamInt"), 10);
    expectStops();
    end = true;
    client.join();
}

TEST_F(HastySDBusManagerLifeTest, stopDuringAReadThatIsNotAnswered)
{
    startService();
    mDevice.sysd().setBehaviour("GetParamInt", tBehaviour::silent());
    const std::size_t from = mark();
    auto reading = std::async(std::launch::async, [this] { return mDevice.desktop().property("GifDelayMS"); });
    ASSERT_TRUE(mDevice.timeline().waitFor(sim::match::call("GetParamInt"), from));
    expectStops();
    EXPECT_EQ(reading.get().value, "0"); // what an answer that does not come counts as on any other day
}

TEST_F(SDBusManagerLifeTest, stopWhileTheBusIsLost)
{
    startService();
    mStderr.clear();
    mDevice.stopUserBus();
    ASSERT_TRUE(mStderr.waitFor(kRefused));
    expectStops();
    EXPECT_EQ(countOf(mStderr.text(), kStopping), 1U);
}

TEST_F(SDBusManagerLifeTest, stopWhileTheBusHangs)
{
    startService();
    kill(mDevice.userBus().pid(), SIGSTOP);
    mService.emitQVStatus();
    expectStops();
    kill(mDevice.userBus().pid(), SIGCONT);
}

TEST_F(SDBusManagerLifeTest, stopWhileItIsAskedToEmit)
{
    startService();
    std::atomic<bool> end = false;
    std::thread emitter([&] {
        while (!end) {
            mService.emitQVStatus();
            mService.emitShowLogos();
            mService.sendLogosFinished();
        }
    });
    expectStops();
    end = true;
    emitter.join();
}

// ---- The service manager's watchdog

namespace {

/// A service manager that wants to hear from this process; in place before anything else begins.
class ServiceManager
{
public:
    ServiceManager()
        : mSocket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        const std::string name = "vorlan-bus-tests-" + std::to_string(getpid());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path + 1, name.data(), name.size()); // abstract
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        EXPECT_EQ(bind(mSocket.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
        setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
        setenv("WATCHDOG_USEC", "400000", 1);
    }
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;
    ~ServiceManager()
    {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
    }

    /// Empty when none came before the deadline.
    std::string next() const
    {
        const timeval deadline{10, 0};
        setsockopt(mSocket.get(), SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
        std::string message(1000, '\0');
        ssize_t got = 0;
        do
            got = recv(mSocket.get(), message.data(), message.size(), 0);
        while (got < 0 && errno == EINTR);
        message.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
        return message;
    }

private:
    sim::UniqueFd mSocket;
};

class WatchedSDBusManagerLifeTest : public ServiceManager, public SDBusManagerTest
{};

} // namespace

TEST_F(WatchedSDBusManagerLifeTest, theLoopFeedsTheWatchdogWhileNothingHappens)
{
    startService();
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(next(), "WATCHDOG=1");
    expectStops();
}

// ---- Many threads

TEST_F(SDBusManagerLifeTest, manyThreadsReadEmitAndChangeValuesAtOnce)
{
    constexpr int kReads = 250; // each on a connection of its own
    constexpr int kAll = 60;
    constexpr int kEmits = 400;
    const std::string texts[] = {"", std::string(300, 'a'), std::string(3000, 'b')};
    mCfg->StatusText.set(texts[0]);
    mCfg->IpAddrQV.set(texts[0]);
    startService();
    SignalWatch watch(mDevice.userBus().address());
    const std::size_t from = mark();
    std::atomic<bool> end = false;

    std::vector<std::thread> clients;
    clients.reserve(3);
    for (int client = 0; client < 3; ++client) {
        clients.emplace_back([&, client] {
            const std::string names[] = {"StatusText", "IpAddrQV", "StatusQV", "AnimationEnabled", "GifOffsetX"};
            for (int i = 0; i < kReads; ++i) {
                const std::string& name = names[static_cast<std::size_t>(i + client) % std::size(names)];
                const auto result = mDevice.desktop().property(name);
                EXPECT_TRUE(result.ok) << name << ": " << result.errorName;
                if (result.signature == "s") {
                    EXPECT_THAT(result.raw, AnyOf(texts[0], texts[1], texts[2]));
                }
            }
        });
    }
    clients.emplace_back([&] {
        for (int i = 0; i < kAll; ++i)
            EXPECT_THAT(mDevice.desktop().allProperties(), SizeIs(9));
    });
    for (int emitter = 0; emitter < 2; ++emitter) {
        clients.emplace_back([&, emitter] {
            for (int i = 0; i < kEmits; ++i) {
                switch ((i + emitter) % 4) {
                case 0:
                    mService.emitQVStatus();
                    break;
                case 1:
                    mService.emitStatusTxt();
                    break;
                case 2:
                    mService.emitShowLogos();
                    break;
                default:
                    mService.sendLogosFinished();
                }
            }
        });
    }
    clients.emplace_back([&] {
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(mDevice.desktop().showQmx().ok);
    });
    std::thread writer([&] {
        for (unsigned i = 0; !end; ++i) {
            mCfg->StatusText.set(texts[i % 3]);
            mCfg->IpAddrQV.set(texts[(i + 1) % 3]);
            mCfg->StatusQV = i % 256;
            mCfg->AnimationEnabled = i % 2 == 0;
            std::this_thread::yield();
        }
    });
    for (std::thread& client : clients)
        client.join();
    end = true;
    writer.join();

    int announced = 0;
    mService.emitOrientationChanged();
    for (SignalWatch::tSignal signal = watch.next(); signal.member != "OrientationChanged"; signal = watch.next()) {
        ASSERT_FALSE(signal.member.empty()) << "after " << announced;
        ++announced;
    }
    EXPECT_EQ(announced, 2 * kEmits);
    EXPECT_EQ(mDevice.timeline().count([](const sim::tEvent& event) { return event.kind == sim::KindE::eOwner; }, from),
              0U);
    ASSERT_TRUE(mDevice.timeline().waitForCount(sim::match::call("Exit").to("idle"), 3, from));
    expectStops();
    EXPECT_EQ(mStderr.text(), std::string(kRetry) + kStopping);
}

TEST_F(SDBusManagerLifeTest, manyThreadsEmitWhileTheBusComesAndGoes)
{
    startService();
    std::atomic<bool> end = false;
    std::vector<std::thread> threads;
    threads.reserve(2);
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (!end) {
                mService.emitQVStatus();
                mService.emitStatusTxt();
                mService.emitOrientationChanged();
                std::this_thread::sleep_for(std::chrono::microseconds(100)); // the bus daemon has to keep up
            }
        });
    }
    threads.emplace_back([&] {
        while (!end)
            mDevice.desktop().property("StatusQV", milliseconds{200});
    });
    for (int i = 0; i < 3; ++i) {
        mDevice.stopUserBus();
        mDevice.startUserBus();
        EXPECT_TRUE(mDevice.desktop().waitForService());
    }
    end = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(read("StatusQV"), "0") << mStderr.text();
    expectStops();
}
