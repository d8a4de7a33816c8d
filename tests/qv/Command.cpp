#include "tests/qv/Command.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <utility>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kDeadline = 60s;

struct tPipe
{
    tPipe()
    {
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
    }
    ~tPipe()
    {
        closeEnd(0);
        closeEnd(1);
    }
    void closeEnd(std::size_t which)
    {
        if (ends[which] >= 0) {
            close(ends[which]);
            ends[which] = -1;
        }
    }
    std::array<int, 2> ends{-1, -1};
};

} // namespace

const char* const kVorlanQv = VORLAN_QV_EXECUTABLE;

Program::Program(const std::vector<std::string>& arguments, const std::string& input)
    : mDeadline(Clock::now() + kDeadline)
{
    tPipe in;
    tPipe out;
    tPipe err;
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    mPid = fork();
    if (mPid == 0) {
        dup2(in.ends[0], STDIN_FILENO);
        dup2(out.ends[1], STDOUT_FILENO);
        dup2(err.ends[1], STDERR_FILENO);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    in.closeEnd(0);
    if (write(in.ends[1], input.data(), input.size()) != static_cast<ssize_t>(input.size())) {
        throw std::runtime_error("input was not taken");
    }
    mStreams = {std::exchange(out.ends[0], -1), std::exchange(err.ends[0], -1)};
}

Program::~Program()
{
    if (mPid > 0) {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
    for (const int fd : mStreams) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

void Program::signal(int number) const
{
    kill(mPid, number);
}

bool Program::take()
{
    std::array<pollfd, 2> wait{{{mStreams[0], POLLIN, 0}, {mStreams[1], POLLIN, 0}}};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(mDeadline - Clock::now()).count();
    if ((mStreams[0] < 0 && mStreams[1] < 0) || left <= 0 ||
        poll(wait.data(), wait.size(), static_cast<int>(left)) <= 0) {
        return false;
    }
    for (std::size_t i = 0; i < wait.size(); ++i) {
        if (wait[i].revents == 0) {
            continue;
        }
        std::array<char, 4096> bytes{};
        const auto count = read(mStreams[i], bytes.data(), bytes.size());
        if (count > 0) {
            (i == 0 ? mRun.out : mRun.err).append(bytes.data(), static_cast<std::size_t>(count));
        } else {
            close(std::exchange(mStreams[i], -1));
        }
    }
    return true;
}

bool Program::writes(const std::string& text)
{
    while (mRun.out.find(text) == std::string::npos && mRun.err.find(text) == std::string::npos) {
        if (!take()) {
            return false;
        }
    }
    return true;
}

tRun Program::end()
{
    while (take()) {
    }
    if (mStreams[0] >= 0 || mStreams[1] >= 0) {
        kill(mPid, SIGKILL);
    }
    int status = 0;
    waitpid(std::exchange(mPid, -1), &status, 0);
    mRun.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return mRun;
}

tRun runProgram(const std::vector<std::string>& argv, const std::string& input)
{
    return Program(argv, input).end();
}

tRun runCommand(const std::vector<std::string>& arguments, const std::string& input)
{
    std::vector<std::string> argv{kVorlanQv};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return runProgram(argv, input);
}
