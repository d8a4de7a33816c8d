#include "sim/Device.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

namespace {

using namespace sim;

Daemon::tOptions script(const std::string& text)
{
    Daemon::tOptions options;
    options.arguments = {"-c", text};
    return options;
}

class DaemonFixture : public ::testing::Test
{
protected:
    TempDir mFolder;
    Timeline mTimeline;
    PrivateBus mSystemBus{mFolder.path(), "system"};
    PrivateBus mUserBus{mFolder.path(), "user"};
    Daemon mDaemon{mTimeline, mSystemBus, mUserBus};
};

TEST_F(DaemonFixture, keepsBothStreamsApartByteForByte)
{
    mDaemon.start("/bin/sh", script(R"(printf 'one\ntw\010o'; printf 'err\n\n' >&2; exit 3)"));
    EXPECT_EQ(mDaemon.waitExit(), exited(3));
    EXPECT_EQ(mDaemon.out(), "one\ntw\bo");
    EXPECT_EQ(mDaemon.err(), "err\n\n");
    EXPECT_TRUE(mTimeline.find(match::log("tw\bo").on(ChannelE::eStdout)));
    EXPECT_EQ(mTimeline.count(match::log("").on(ChannelE::eStderr)), 1U);
    EXPECT_EQ(mTimeline.events().size(), 4U);
}

TEST_F(DaemonFixture, findsTheBusesInItsEnvironment)
{
    Daemon::tOptions options =
        script(R"(echo "$DBUS_SYSTEM_BUS_ADDRESS $DBUS_SESSION_BUS_ADDRESS ${XDG_RUNTIME_DIR-none} $EXTRA")");
    options.environment["EXTRA"] = "more";
    mDaemon.start("/bin/sh", options);
    EXPECT_EQ(mDaemon.waitExit(), exited(0));
    EXPECT_EQ(mDaemon.out(), mSystemBus.address() + " " + mUserBus.address() + " none more\n");
}

TEST_F(DaemonFixture, isSignalledAndWaitedFor)
{
    mDaemon.start("/bin/sh", script("trap 'echo got; exit 0' TERM; echo ready; while :; do sleep 0.01; done"));
    ASSERT_TRUE(mDaemon.waitForOutput("ready\n"));
    EXPECT_TRUE(mDaemon.running());
    EXPECT_EQ(mDaemon.waitExit(milliseconds{10}), std::nullopt);
    mDaemon.signal(SIGTERM);
    EXPECT_EQ(mDaemon.waitExit(), exited(0));
    EXPECT_FALSE(mDaemon.running());
    EXPECT_EQ(mDaemon.out(), "ready\ngot\n");
}

TEST_F(DaemonFixture, runsWithoutAStandardOutput)
{
    Daemon::tOptions options = script("echo x || echo closed >&2");
    options.closeStdout = true;
    mDaemon.start("/bin/sh", options);
    ASSERT_TRUE(mDaemon.waitExit());
    EXPECT_NE(mDaemon.err().find("closed\n"), std::string::npos);
    EXPECT_EQ(mDaemon.out(), "");
}

TEST_F(DaemonFixture, writesToAGivenDescriptor)
{
    const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    Daemon::tOptions options = script("echo x || echo full >&2");
    options.stdoutFd = full.get();
    mDaemon.start("/bin/sh", options);
    ASSERT_TRUE(mDaemon.waitExit());
    EXPECT_NE(mDaemon.err().find("full\n"), std::string::npos);
}

TEST_F(DaemonFixture, startsAgainWithAFreshRecord)
{
    mDaemon.start("/bin/sh", script("echo first; sleep 1000"));
    ASSERT_TRUE(mDaemon.waitForOutput("first"));
    mDaemon.start("/bin/sh", script("echo second"));
    EXPECT_EQ(mDaemon.waitExit(), exited(0));
    EXPECT_EQ(mDaemon.out(), "second\n");
}

} // namespace
