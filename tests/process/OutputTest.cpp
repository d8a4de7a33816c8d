#include "tests/process/RigTest.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <filesystem>

namespace {

using namespace rig;
using sim::exited;
using sim::UniqueFd;
using sim::match::call;

class Output : public RigTest
{
protected:
    static sim::Daemon::tOptions withoutDescriptors(const std::string& redirections)
    {
        sim::Daemon::tOptions options;
        options.wrapper = {"/bin/sh", "-c", "exec \"$0\" \"$@\" " + redirections};
        return options;
    }

    /// The daemon is started so, plays the whole start-up, keeps both its buses and ends well.
    void expectWholeLife(const sim::Daemon::tOptions& options)
    {
        mRig.device().sysd().setCfg("VisuURL", "");
        ASSERT_TRUE(mRig.serve(options));
        ASSERT_TRUE(mRig.device().desktop().waitForService());
        ASSERT_TRUE(mRig.playStory());
        ASSERT_TRUE(mRig.timeline().waitFor(sim::match::property("StatusText")));
        EXPECT_EQ(mRig.ask({0x0F, 0x00}), "8f"); // with a line on standard error
        EXPECT_EQ(mRig.ask(readReg(wire::eRegRdDispBrightnessRaw)), "00 c8");
        EXPECT_EQ(mRig.ask(readReg(wire::eRegRdParamText)), "00 31 2e 34 2e 32 00");
        EXPECT_EQ(mRig.device().desktop().property("IpAddrQV").raw, "10.0.0.5");
        EXPECT_EQ(mRig.stopByUpdate(), exited(0));
        EXPECT_EQ(mRig.timeline().count(call("SysUpdate")), 1U);
        EXPECT_EQ(mRig.peer().counts().broken, 0U); // nothing but frames on the line
        EXPECT_EQ(hex(mRig.leftovers()), "");
    }

    /// What came through a socket that keeps writes apart.
    static std::vector<std::string> writesFrom(int socket)
    {
        std::vector<std::string> writes;
        std::array<char, 65536> buffer{};
        for (ssize_t got = 0; (got = recv(socket, buffer.data(), buffer.size(), 0)) > 0;)
            writes.emplace_back(buffer.data(), static_cast<std::size_t>(got));
        return writes;
    }

    std::string errOfMain() { return linesWithout(mRig.daemon().err(), "SDBusManager: "); }
};

constexpr char kUnknownCmd[] = "Vorlan: unknown cmd detected: 15\n";

TEST_F(Output, mayBeClosed)
{
    sim::Daemon::tOptions options;
    options.closeStdout = true;
    expectWholeLife(options);
    EXPECT_EQ(mRig.daemon().out(), "");
    EXPECT_EQ(errOfMain(), kUnknownCmd);
}

TEST_F(Output, mayBeFull)
{
    const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    sim::Daemon::tOptions options;
    options.stdoutFd = full.get();
    expectWholeLife(options);
    EXPECT_EQ(errOfMain(), kUnknownCmd);
}

TEST_F(Output, mayBeAPipeThatNobodyReads)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    const UniqueFd closedPipe(ends[1]);
    sim::Daemon::tOptions options;
    options.stdoutFd = closedPipe.get();
    expectWholeLife(options);
    EXPECT_EQ(errOfMain(), kUnknownCmd);
}

TEST_F(Output, mayBeAFileThatHasReachedItsLimit)
{
    const std::string path = mRig.device().folder() + "/out";
    sim::Daemon::tOptions options = withoutDescriptors(">" + path);
    options.wrapper.insert(options.wrapper.begin(), {"prlimit", "--fsize=10"});
    expectWholeLife(options);
    EXPECT_EQ(std::filesystem::file_size(path), 10U);
    EXPECT_EQ(errOfMain(), kUnknownCmd);
}

// A closed standard descriptor is the next one that the system gives out: log lines must not go to the line or to a bus
// with it.

TEST_F(Output, errorsMayBeClosed)
{
    expectWholeLife(withoutDescriptors("2>&-"));
    EXPECT_EQ(mRig.daemon().out(), kStarted +
                                       std::string("Vorlan: writeReg eRegWrQVProtVersion 7\n"
                                                   "Vorlan: ApplyConfig\n"
                                                   "Vorlan::startLogoHandler\n"
                                                   "Vorlan::startLogoHandler: finished\n"
                                                   "Vorlan: readReg eRegRdDispBrightnessRaw 200\n") +
                                       kStopped);
}

TEST_F(Output, linesDoNotGoToTheLineWhenAllStandardDescriptorsAreClosed)
{
    expectWholeLife(withoutDescriptors("0<&- 1>&- 2>&-"));
    EXPECT_EQ(mRig.daemon().out() + mRig.daemon().err(), "");
}

TEST_F(Output, eachLineOfTheUsageIsOneWrite)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const UniqueFd ours(ends[0]);
    UniqueFd theirs(ends[1]);
    sim::Daemon::tOptions options;
    options.arguments = {"--help"};
    options.stdoutFd = theirs.get();
    mRig.start(options);
    theirs.reset();
    EXPECT_EQ(mRig.daemon().waitExit(), exited(1));
    EXPECT_EQ(writesFrom(ours.get()).size(), 6U);
}

TEST_F(Output, refusesACommandLineWithoutAnOutputToo)
{
    sim::Daemon::tOptions options;
    options.closeStdout = true;
    options.arguments = {"-b", "abc"};
    mRig.start(options);
    EXPECT_EQ(mRig.daemon().waitExit(), exited(1));
}

/// Both streams into a socket that keeps the borders of the writes.
TEST_F(Output, eachLineIsOneWrite)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const UniqueFd ours(ends[0]);
    UniqueFd theirs(ends[1]);
    mRig.device().sysd().goAway();
    sim::Daemon::tOptions options = withoutDescriptors("2>&1");
    options.stdoutFd = theirs.get();
    options.environment = kShortCalls;
    mRig.start(options);
    theirs.reset();
    ASSERT_TRUE(mRig.device().desktop().waitForName(milliseconds{0}) == false);
    mRig.device().sysd().comeBack();
    ASSERT_TRUE(mRig.inStep());
    mRig.device().logo().goAway(); // a line by perror
    mRig.device().sysd().removeParam(172);
    ASSERT_TRUE(mRig.playStory());
    EXPECT_EQ(mRig.ask({0x0F, 0x00}), "8f");
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdDispBrightnessRaw)), "00 00");
    EXPECT_EQ(mRig.ask(rig::call(wire::eMethodSetCfgStr, text(std::string(20000, 'k')))), "02");
    qv::Bytes record = text("eth0");
    const qv::Bytes mode = text(std::string(20000, '\xff'));
    record.insert(record.end(), mode.begin(), mode.end());
    EXPECT_EQ(mRig.ask(rig::call(wire::eMethodSetNetworkCfg, record)), "02");
    EXPECT_EQ(mRig.stop(), exited(0));

    const std::vector<std::string> writes = writesFrom(ours.get());
    for (const std::string& line : writes)
        EXPECT_EQ(line.find('\n'), line.size() - 1) << line;
    EXPECT_EQ(writes.front(), kStarted);
    EXPECT_EQ(writes.back(), kStopped);
    for (const std::string& wanted :
         {std::string(kRetrying), std::string(kStopping), std::string("Vorlan: ApplyConfig\n"),
          std::string("Vorlan::startLogoHandler\n"), std::string("Vorlan::startLogoHandler: finished\n"),
          std::string(kUnknownCmd), std::string("SDBusSysD: Failed to get param: 172\n"),
          std::string("Vorlan: readReg eRegRdDispBrightnessRaw 0\n"),
          "SDBusSysD: Failed to set cfg: " + std::string(20000, 'k') + "\n",
          "SysDDBusCtrl: Failed to append dbus message: " + std::string(20000, '\xff') + "\n"})
        EXPECT_THAT(writes, ::testing::Contains(wanted));
    EXPECT_THAT(writes, ::testing::Contains(::testing::StartsWith("SDBusLogoHandler: Failed to start logohandler: ")));
}

} // namespace
