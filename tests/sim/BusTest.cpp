#include "sim/PrivateBus.h"
#include "sim/TempDir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

namespace {

using namespace sim;

bool answers(const PrivateBus& bus)
{
    const BusPtr connection = openBus(bus.address());
    const char* name = nullptr;
    return connection != nullptr && sd_bus_get_unique_name(connection.get(), &name) >= 0;
}

TEST(PrivateBus, answersFromStartToStop)
{
    TempDir folder;
    PrivateBus bus(folder.path(), "bus");
    EXPECT_FALSE(answers(bus));
    bus.start();
    EXPECT_TRUE(answers(bus));
    bus.stop();
    EXPECT_FALSE(answers(bus));
}

class EachKindOfBus : public ::testing::TestWithParam<BusKindE>
{};

INSTANTIATE_TEST_SUITE_P(Buses, EachKindOfBus, ::testing::Values(BusKindE::eOpen, BusKindE::eStock, BusKindE::eBroker));

TEST_P(EachKindOfBus, comesBackAtTheSameAddress)
{
    TempDir folder;
    PrivateBus bus(folder.path(), "bus");
    bus.setKind(GetParam());
    bus.start();
    const std::string address = bus.address();
    const pid_t pid = bus.pid();
    bus.stop();
    bus.start();
    EXPECT_EQ(bus.address(), address);
    EXPECT_NE(bus.pid(), pid);
    EXPECT_TRUE(answers(bus));
}

TEST(StockBus, letsNobodyOwnAnotherName)
{
    TempDir folder;
    PrivateBus bus(folder.path(), "bus");
    bus.setKind(BusKindE::eStock);
    bus.start();
    const BusPtr connection = openBus(bus.address());
    EXPECT_EQ(sd_bus_request_name(connection.get(), "com.kelvora.other", 0), -EACCES);
    EXPECT_GE(sd_bus_request_name(connection.get(), "com.kelvora.sysdaemon", 0), 0);
}

TEST(TempDir, isGoneWithItsObject)
{
    std::string path;
    {
        TempDir folder;
        path = folder.path();
        EXPECT_TRUE(std::filesystem::is_directory(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

// A process of its own dies as hard as one can, with a folder and a bus; what it leaves behind is what the guard
// leaves.
TEST(TempDir, isGoneAfterAKilledProcess)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd ours(ends[0]);
    UniqueFd theirs(ends[1]);
    Child::tSpawn spawn;
    spawn.argv = {SIM_LEAVER};
    spawn.environment = environmentWithout({});
    spawn.out = theirs.get();
    Child leaver = Child::spawn(spawn);
    theirs.reset();
    std::string said;
    for (char c = 0; read(ours.get(), &c, 1) == 1 && c != '\n';)
        said += c;
    ASSERT_TRUE(std::filesystem::is_directory(said.substr(0, said.find(' ')))) << said;
    const auto busPid = static_cast<pid_t>(std::stol(said.substr(said.find(' '))));

    leaver.signal(SIGKILL);
    EXPECT_EQ(leaver.wait(), killed(SIGKILL));
    // the guard and the bus hold no end of this pipe, so each is asked for itself
    const std::string path = said.substr(0, said.find(' '));
    const auto end = Clock::now() + kDeadline;
    while ((std::filesystem::exists(path) || ::kill(busPid, 0) == 0) && Clock::now() < end)
        usleep(1000);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_NE(::kill(busPid, 0), 0);
}

TEST(Child, tellsHowItEnded)
{
    Child::tSpawn spawn;
    spawn.environment = environmentWithout({});
    spawn.argv = {"/bin/sh", "-c", "exit 7"};
    EXPECT_EQ(Child::spawn(spawn).wait(), exited(7));
    spawn.argv = {"/no/such/program"};
    EXPECT_EQ(Child::spawn(spawn).wait(), exited(127));
    spawn.argv = {"/bin/sh", "-c", "kill -TERM $$"};
    EXPECT_EQ(Child::spawn(spawn).wait(), killed(SIGTERM));
    spawn.argv = {"sleep", "1000"};
    Child sleeper = Child::spawn(spawn);
    EXPECT_EQ(sleeper.wait(milliseconds{10}), std::nullopt);
    sleeper.signal(SIGINT);
    EXPECT_EQ(sleeper.wait(), killed(SIGINT));
    EXPECT_EQ(sleeper.wait(), killed(SIGINT));
}

} // namespace
