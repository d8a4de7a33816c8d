#include "dbus/SDBusClients.h"

#include "tests/bus/BusTest.h"

#include <array>
#include <cstdlib>
#include <thread>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using SDBusClientsTest = BusTest;

} // namespace

TEST_F(SDBusClientsTest, areOneRegistryWithTheSameClients)
{
    EXPECT_EQ(SDBusClients::smpInstance, nullptr);
    const auto clients = SDBusClients::clients();
    EXPECT_EQ(SDBusClients::smpInstance, clients);
    EXPECT_EQ(SDBusClients::clients(), clients);
    ASSERT_NE(clients->mSysD, nullptr);
    ASSERT_NE(clients->mApp, nullptr);
    const auto sysd = clients->mSysD;
    EXPECT_EQ(SDBusClients::clients()->mSysD, sysd);
}

TEST_F(SDBusClientsTest, systemBusIsOpenedOnceAndUserBusNotAtAll)
{
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    const auto clients = SDBusClients::clients();
    EXPECT_EQ(mStderr.text(), "");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    SDBusClients::clients()->mSysD->saveConfig();
    EXPECT_THAT(calls(), ElementsAre("sysd.SaveConfig"));
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusClientsTest, firstCallOfSeveralThreadsCreatesOne)
{
    std::array<std::shared_ptr<SDBusClients>, 4> seen;
    std::array<std::thread, 4> threads;
    for (std::size_t i = 0; i < threads.size(); ++i)
        threads[i] = std::thread([&seen, i] { seen[i] = SDBusClients::clients(); });
    for (std::thread& thread : threads)
        thread.join();
    for (const auto& clients : seen)
        EXPECT_EQ(clients, seen[0]);
}

TEST_F(SDBusClientsTest, stopStopsBoth)
{
    const auto clients = SDBusClients::clients();
    clients->stop();
    EXPECT_THROW(clients->mSysD->saveConfig(), BusStopped);
    clients->mApp->appExit();
    clients->mApp->delayedExit(0);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(mStderr.text(), "");
}
