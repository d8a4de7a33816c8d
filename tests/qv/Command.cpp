#include "tests/qv/Command.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <stdexcept>

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

/// False at the end of the stream.
bool take(int fd, std::string& text)
{
    std::array<char, 4096> bytes{};
    const auto count = read(fd, bytes.data(), bytes.size());
    if (count > 0) {
        text.append(bytes.data(), static_cast<std::size_t>(count));
    }
    return count > 0;
}

} // namespace

const char* const kVorlanQv = VORLAN_QV_EXECUTABLE;

tRun runProgram(const std::vector<std::string>& arguments, const std::string& input)
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
    const auto pid = fork();
    if (pid == 0) {
        dup2(in.ends[0], STDIN_FILENO);
        dup2(out.ends[1], STDOUT_FILENO);
        dup2(err.ends[1], STDERR_FILENO);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    in.closeEnd(0);
    out.closeEnd(1);
    err.closeEnd(1);
    if (write(in.ends[1], input.data(), input.size()) != static_cast<ssize_t>(input.size())) {
        throw std::runtime_error("input was not taken");
    }
    in.closeEnd(1);

    tRun run;
    const auto deadline = Clock::now() + kDeadline;
    std::array<pollfd, 2> wait{{{out.ends[0], POLLIN, 0}, {err.ends[0], POLLIN, 0}}};
    while (wait[0].fd >= 0 || wait[1].fd >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0 || poll(wait.data(), wait.size(), static_cast<int>(left)) <= 0) {
            kill(pid, SIGKILL);
            break;
        }
        for (auto& entry : wait) {
            if (entry.revents != 0 && !take(entry.fd, entry.fd == out.ends[0] ? run.out : run.err)) {
                entry.fd = -1;
            }
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

tRun runCommand(const std::vector<std::string>& arguments, const std::string& input)
{
    std::vector<std::string> argv{kVorlanQv};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return runProgram(argv, input);
}
