#include "sim/Child.h"
#include "sim/TempDir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string_view>

namespace {

using namespace sim;

/// vorlan-sim as a process, with what it shows.
class Tool
{
public:
    explicit Tool(const std::vector<std::string>& arguments)
    {
        int ends[2];
        int inEnds[2];
        if (pipe2(ends, O_CLOEXEC) < 0 || pipe2(inEnds, O_CLOEXEC) < 0)
            throw std::runtime_error("no pipe");
        mShown.reset(ends[0]);
        UniqueFd theirs(ends[1]);
        const UniqueFd theirInput(inEnds[0]);
        mInput.reset(inEnds[1]);
        Child::tSpawn spawn;
        spawn.argv = {SIM_TOOL};
        spawn.argv.insert(spawn.argv.end(), arguments.begin(), arguments.end());
        spawn.environment = environmentWithout({});
        spawn.in = theirInput.get();
        spawn.out = theirs.get();
        spawn.err = theirs.get();
        mProcess = Child::spawn(spawn);
    }

    void type(const std::string& text)
    {
        EXPECT_EQ(write(mInput.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void signal(int number) const { mProcess.signal(number); }

    /// Reads on until the text has come, so many times; false at the deadline or at the end.
    bool waitFor(const std::string& text, unsigned times = 1)
    {
        return readUntil([&] {
            std::size_t at = 0;
            unsigned seen = 0;
            for (; seen < times && (at = mText.find(text, at)) != std::string::npos; at += text.size())
                ++seen;
            return seen == times;
        });
    }

    tExit end()
    {
        readUntil([] { return false; });
        return mProcess.wait().value_or(tExit{true, -1});
    }

    const std::string& text() const { return mText; }
    /// The folder that it works in.
    std::string folder() const
    {
        const auto begin = mText.find("/tmp/vorlan-sim-");
        constexpr std::string_view kTemplate =
            "/tmp/vorlan-sim-XXXXXX"; // what mkdtemp was given: as long as its result
        return begin == std::string::npos ? "" : mText.substr(begin, kTemplate.size());
    }

private:
    bool readUntil(const std::function<bool()>& reached)
    {
        const auto deadline = Clock::now() + std::chrono::seconds{60};
        while (!reached()) {
            pollfd poller{mShown.get(), POLLIN, 0};
            const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
            char chunk[4096];
            if (left <= 0 || poll(&poller, 1, static_cast<int>(left)) <= 0)
                return false;
            const ssize_t got = read(mShown.get(), chunk, sizeof chunk);
            if (got <= 0)
                return reached();
            mText.append(chunk, static_cast<std::size_t>(got));
        }
        return true;
    }

    UniqueFd mShown;
    UniqueFd mInput;
    Child mProcess;
    std::string mText;
};

bool goes(const std::string& path)
{
    const auto end = Clock::now() + kDeadline;
    while (std::filesystem::symlink_status(path).type() != std::filesystem::file_type::not_found && Clock::now() < end)
        usleep(1000);
    return std::filesystem::symlink_status(path).type() == std::filesystem::file_type::not_found;
}

TEST(VorlanSim, playsTheWholeStoryAndEndsWithStatus0)
{
    Tool tool({"--daemon", VORLAN_DAEMON, "--story"});
    EXPECT_EQ(tool.end(), exited(0)) << tool.text();
    for (const char* part : {"QV -> daemon        read ip-addr", "GetNetIPv4Addr()  = \"192.168.10.20\"",
                             "signal LogosFinished", "ok: it ended with status 0"})
        EXPECT_NE(tool.text().find(part), std::string::npos) << part;
    EXPECT_TRUE(goes(tool.folder()));
}

TEST(VorlanSim, tellsWhatWasExpectedAndSeenWhenAStepFails)
{
    Tool tool({"--daemon", VORLAN_DAEMON, "--story", "--fault", "sysd.GetNetIPv4Addr=error"});
    EXPECT_EQ(tool.end(), exited(1));
    EXPECT_NE(
        tool.text().find(
            "FAILED in step 3. QV reads every register\n  expected: value of read ip-addr: 192.168.10.20\n  seen: "),
        std::string::npos)
        << tool.text();
}

TEST(VorlanSim, noticesAServiceThatIsNeverCalled)
{
    Tool tool({"--daemon", VORLAN_DAEMON, "--story", "--fault", "logo=absent"});
    EXPECT_EQ(tool.end(), exited(1));
    EXPECT_NE(tool.text().find("expected: call logo.Start"), std::string::npos) << tool.text();
}

TEST(VorlanSim, noticesADaemonThatDoesNothing)
{
    Tool tool({"--daemon", "/bin/true", "--story"});
    EXPECT_EQ(tool.end(), exited(1));
    EXPECT_NE(tool.text().find("FAILED in step 1"), std::string::npos) << tool.text();
    EXPECT_NE(tool.text().find("To join in from another terminal:"), std::string::npos) << tool.text();
    EXPECT_EQ(tool.text().find("vorlan-qv"), std::string::npos) << "the story has the port: nobody can join in there";
}

TEST(VorlanSim, takesFaultsAndEndsWhenTold)
{
    Tool tool({"--daemon", VORLAN_DAEMON, "--fault", "sysd=absent"});
    ASSERT_TRUE(tool.waitFor("Waiting for sysdaemon ready...retrying..")) << tool.text();
    tool.type("sysd=nonsense\nsysd=present\n");
    ASSERT_TRUE(tool.waitFor("GetCfgInt(\"VorlanBaud\")  = 115200")) << tool.text();
    EXPECT_NE(tool.text().find("'nonsense' is nothing"), std::string::npos);
    tool.type("kill\ndaemon\n");
    ASSERT_TRUE(tool.waitFor("kelvora vorlan daemon started", 2)) << tool.text();
    tool.type("quit\n");
    EXPECT_EQ(tool.end(), exited(0));
}

TEST(VorlanSim, cleansUpAfterEverySignal)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGKILL}) {
        TempDir folder;
        const std::string link = folder.path() + "/port";
        Tool tool({"--daemon", VORLAN_DAEMON, "--port-link", link});
        ASSERT_TRUE(tool.waitFor("GetCfgInt(\"VorlanBaud\")")) << tool.text();
        EXPECT_TRUE(std::filesystem::is_symlink(link));
        EXPECT_TRUE(std::filesystem::is_directory(tool.folder())) << tool.text();
        tool.signal(number);
        EXPECT_EQ(tool.end(), number == SIGKILL ? killed(SIGKILL) : exited(0));
        EXPECT_TRUE(goes(tool.folder())) << number;
        EXPECT_TRUE(goes(link)) << number;
    }
}

TEST(VorlanSim, leavesAloneWhatIsNotItsOwn)
{
    TempDir folder;
    const std::string link = folder.path() + "/port";
    Tool first({"--port-link", link});
    ASSERT_TRUE(first.waitFor("Ctrl-C ends it all")) << first.text();
    const auto port = std::filesystem::read_symlink(link);
    Tool second({"--port-link", link});
    EXPECT_EQ(second.end(), exited(3));
    EXPECT_NE(second.text().find("cannot make the link " + link + ": File exists"), std::string::npos) << second.text();
    EXPECT_EQ(std::filesystem::read_symlink(link), port);

    for (const int number : {SIGTERM, SIGKILL}) {
        const std::string taken = folder.path() + "/taken" + std::to_string(number);
        Tool tool({"--port-link", taken});
        ASSERT_TRUE(tool.waitFor("Ctrl-C ends it all")) << tool.text();
        std::filesystem::remove(taken);
        std::filesystem::create_directory(taken);
        std::ofstream(taken + "/file") << "somebody else's";
        tool.signal(number);
        tool.end();
        EXPECT_TRUE(goes(tool.folder())) << "its guards have done their work";
        EXPECT_TRUE(std::filesystem::exists(taken + "/file")) << number;
    }
}

TEST(VorlanSim, tellsHowToJoinIn)
{
    Tool free({});
    ASSERT_TRUE(free.waitFor("Ctrl-C ends it all")) << free.text();
    EXPECT_NE(free.text().find("\n  " VORLAN_QV_EXECUTABLE " --port /tmp/vorlan-sim-"), std::string::npos)
        << free.text();
    free.type("quit\n");
    EXPECT_EQ(free.end(), exited(0));
}

TEST(VorlanSim, saysWhenACommandDoesNothing)
{
    Tool tool({});
    tool.type("daemon\nstop\nkill\nfoo\nhelp\nquit\n");
    EXPECT_EQ(tool.end(), exited(0));
    EXPECT_NE(tool.text().find("there is no daemon to start: vorlan-sim was started without --daemon\n"
                               "no daemon runs\n"
                               "no daemon runs\n"
                               "there is no command 'foo'; help shows all\n"),
              std::string::npos)
        << tool.text();
    EXPECT_NE(tool.text().find("  kill       end it at once"), std::string::npos) << tool.text();
    Tool runs({"--daemon", VORLAN_DAEMON});
    ASSERT_TRUE(runs.waitFor("GetCfgInt(\"VorlanBaud\")")) << runs.text();
    runs.type("daemon\nquit\n");
    EXPECT_EQ(runs.end(), exited(0));
    EXPECT_NE(runs.text().find("the daemon runs; stop or kill it first\n"), std::string::npos) << runs.text();
}

TEST(VorlanSim, writesEachEventAsAJsonLine)
{
    TempDir folder;
    const std::string path = folder.path() + "/events";
    Tool tool({"--daemon", VORLAN_DAEMON, "--json", path});
    ASSERT_TRUE(tool.waitFor("GetCfgInt(\"VorlanBaud\")")) << tool.text();
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.end(), exited(0));
    std::ifstream file(path);
    std::size_t lines = 0;
    bool found = false;
    for (std::string line; std::getline(file, line); ++lines) {
        EXPECT_TRUE(line.starts_with("{\"id\":" + std::to_string(lines) + ",\"us\":") && line.ends_with("}")) << line;
        found =
            found || line.find(R"("member":"SetParamInt","signature":"ui","arguments":"211, 0")") != std::string::npos;
    }
    EXPECT_TRUE(found);
}

TEST(VorlanSim, refusesWhatItDoesNotUnderstand)
{
    Tool unknown({"--fault", "sysd.Nothing=error"});
    EXPECT_EQ(unknown.end(), exited(2));
    EXPECT_NE(unknown.text().find("sysd has no 'Nothing'"), std::string::npos);
    Tool noDaemon({"--story"});
    EXPECT_EQ(noDaemon.end(), exited(2));
    Tool noSuchDaemon({"--daemon", "/no/such/file"});
    EXPECT_EQ(noSuchDaemon.end(), exited(2));
}

} // namespace
