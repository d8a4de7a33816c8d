#include "tests/qv/DeviceFixture.h"

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

/// vorlan-qv's prompt on a terminal, and somebody who types.
class ShellTest : public CommandTest
{
protected:
    ~ShellTest() override
    {
        if (mPid > 0) {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
        }
        if (mTerminal >= 0) {
            close(mTerminal);
        }
    }
    void open() { open({kVorlanQv, "--port", mBridge.device(), "--timeout", "10000", "shell"}); }
    void open(const std::vector<std::string>& words)
    {
        const std::string home = "HOME=" + mRig.device().folder();
        std::vector<char*> argv;
        argv.reserve(words.size() + 1);
        for (const auto& word : words) {
            argv.push_back(const_cast<char*>(word.c_str()));
        }
        argv.push_back(nullptr);
        const winsize size{24, 200, 0, 0};
        mShown.clear();
        mPid = forkpty(&mTerminal, nullptr, nullptr, &size);
        if (mPid == 0) {
            termios settings{}; // a Ctrl-C must not make the terminal drop what the program says to it
            tcgetattr(STDIN_FILENO, &settings);
            settings.c_lflag |= static_cast<tcflag_t>(NOFLSH);
            tcsetattr(STDIN_FILENO, TCSANOW, &settings);
            std::array<char*, 3> environment{const_cast<char*>(home.c_str()), const_cast<char*>("TERM=dumb"), nullptr};
            execve(argv[0], argv.data(), environment.data());
            _exit(127);
        }
        EXPECT_TRUE(sees("qv> "));
    }
    void type(const std::string& text) { EXPECT_EQ(write(mTerminal, text.data(), text.size()), ssize_t(text.size())); }
    /// Waits until the terminal shows this, behind what was seen before.
    bool sees(const std::string& text)
    {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (mShown.find(text) == std::string::npos) {
            const auto left = deadline - std::chrono::steady_clock::now();
            pollfd wait{mTerminal, POLLIN, 0};
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
            std::array<char, 1024> bytes{};
            const auto count =
                ms > 0 && poll(&wait, 1, static_cast<int>(ms)) > 0 ? read(mTerminal, bytes.data(), bytes.size()) : -1;
            if (count <= 0) {
                ADD_FAILURE() << "expected: " << text << "\nshown: " << mShown;
                return false;
            }
            mShown.append(bytes.data(), static_cast<std::size_t>(count));
        }
        mShown.erase(0, mShown.find(text) + text.size());
        return true;
    }
    int ends()
    {
        int status = 0;
        std::array<char, 1024> bytes{};
        while (read(mTerminal, bytes.data(), bytes.size()) > 0) {
        }
        waitpid(mPid, &status, 0);
        mPid = -1;
        close(mTerminal);
        mTerminal = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string history()
    {
        std::stringstream text;
        text << std::ifstream(mRig.device().folder() + "/.vorlan-qv_history").rdbuf();
        return text.str();
    }

    pid_t mPid = -1;
    int mTerminal = -1;
    std::string mShown;
};

TEST_F(ShellTest, AnswersAtAPrompt)
{
    startDaemon();
    open();
    type("read ip-addr\n");
    EXPECT_TRUE(sees("ip-addr  192.168.10.20\r\n"));
    EXPECT_TRUE(sees("qv> "));
    type("write qv-status 300\n");
    EXPECT_TRUE(sees("qv-status: 300 is out of range: 0 to 255"));
    type("help beep-param\n");
    EXPECT_TRUE(sees("call beep-param first second"));
    type("quit\n");
    EXPECT_EQ(ends(), 0);
}

TEST_F(ShellTest, EndsAtTheEndOfTheInput)
{
    startDaemon();
    open();
    type("\x04");
    EXPECT_EQ(ends(), 0);
}

TEST_F(ShellTest, CtrlCEndsAWatchAndNotThePrompt)
{
    startDaemon();
    open();
    type("watch brightness-raw --every 50\n");
    EXPECT_TRUE(sees("  brightness-raw  200\r\n"));
    mRig.device().sysd().setParam(172, 77);
    EXPECT_TRUE(sees("  brightness-raw  77\r\n"));
    type("\x03");
    EXPECT_TRUE(sees("qv> "));
    type("read ip-addr\n");
    EXPECT_TRUE(sees("192.168.10.20"));
    type("quit\n");
    EXPECT_EQ(ends(), 0);
}

TEST_F(ShellTest, CtrlCEndsARequestThatNobodyAnswers)
{
    open();
    type("trace on\n");
    EXPECT_TRUE(sees("qv> "));
    type("read ip-addr\n");
    EXPECT_TRUE(sees("get in step"));
    type("\x03");
    EXPECT_TRUE(sees("read ip-addr: interrupted."));
    EXPECT_TRUE(sees("qv> "));
    startDaemon();
    type("read ip-addr\n");
    EXPECT_TRUE(sees("192.168.10.20"));
    type("quit\n");
    EXPECT_EQ(ends(), 0);
}

TEST_F(ShellTest, CtrlCClearsTheLineWithoutReadlineToo)
{
    open({QV_PLAIN_SHELL});
    type("read ip-a");
    EXPECT_TRUE(sees("read ip-a"));
    type("\x03");
    EXPECT_TRUE(sees("qv> "));
    type("help ping\n");
    EXPECT_TRUE(sees("measure round trips"));
    EXPECT_TRUE(sees("qv> "));
    type("\x04");
    EXPECT_EQ(ends(), 0);
}

#ifdef QV_WITH_READLINE

TEST_F(ShellTest, CtrlCClearsTheLine)
{
    startDaemon();
    open();
    type("call start-update");
    EXPECT_TRUE(sees("call start-update"));
    type("\x03");
    EXPECT_TRUE(sees("qv> "));
    type("read ip-addr\n");
    EXPECT_TRUE(sees("192.168.10.20"));
    type("quit\n");
    EXPECT_EQ(ends(), 0);
    EXPECT_EQ(calls("SysUpdate", ""), 0U);
}

TEST_F(ShellTest, CompletesNames)
{
    startDaemon();
    open();
    type("rea\tbright\t\n");
    EXPECT_TRUE(sees("brightness-raw  200\r\n"));
    type("call set-cfg-l\tk\tStartmode v\t0x11\n");
    EXPECT_TRUE(sees("done"));
    EXPECT_EQ(calls("SetCfgInt", "\"Startmode\", 17"), 1U);
    type("read param-w\t\t");
    EXPECT_TRUE(sees("param-word-a  param-word-b"));
    type("a\n");
    EXPECT_TRUE(sees("param-word-a  1280"));
    type("quit\n");
    EXPECT_EQ(ends(), 0);
}

TEST_F(ShellTest, RemembersWhatWasTyped)
{
    startDaemon();
    open();
    type("read ip-addr\n");
    EXPECT_TRUE(sees("192.168.10.20"));
    type("quit\n");
    EXPECT_EQ(ends(), 0);
    EXPECT_EQ(history(), "read ip-addr\nquit\n");
    open();
    type("\x1b[A\x1b[A\n"); // twice up: the read
    EXPECT_TRUE(sees("192.168.10.20"));
    type("quit\n");
    EXPECT_EQ(ends(), 0);
}

TEST_F(ShellTest, RemembersWhatWasTypedBeforeTheTerminalWasClosed)
{
    startDaemon();
    open();
    type("read ip-addr\n");
    EXPECT_TRUE(sees("192.168.10.20"));
    EXPECT_TRUE(sees("qv> "));
    kill(mPid, SIGHUP);
    EXPECT_EQ(ends(), -1) << "ended by the signal";
    EXPECT_EQ(history(), "read ip-addr\n");
}

#endif

} // namespace
