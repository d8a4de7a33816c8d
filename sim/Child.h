#pragma once

#include "sim/Handles.h"
#include "sim/Timeline.h"

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace sim {

/// How a process ended.
struct tExit
{
    bool signalled = false; ///< ended by a signal
    int value = 0;          ///< exit status, or the signal

    bool operator==(const tExit&) const = default;
    std::string text() const;
};

inline constexpr tExit exited(int status)
{
    return {false, status};
}
inline constexpr tExit killed(int signal)
{
    return {true, signal};
}

/// A child process that never outlives this one: the kernel kills it when this process dies, the destructor when the
/// object goes. It has a session of its own, so Ctrl-C on the terminal does not reach it.
class Child
{
public:
    struct tSpawn
    {
        std::vector<std::string> argv;        ///< argv[0] is searched in PATH
        std::vector<std::string> environment; ///< complete, "NAME=value"
        int in = -1;                          ///< descriptor for standard input; -1: /dev/null
        int out = -1;                         ///< for standard output; -1: /dev/null
        int err = -1;                         ///< for standard error; -1: this process's
        int extra = -1;                       ///< becomes descriptor 3
        bool closeOut = false;                ///< no standard output at all
        bool outlives = false;                ///< the kernel does not kill it with this process
    };

    Child() = default;
    Child(Child&& other) noexcept;
    Child& operator=(Child&& other) noexcept;
    ~Child();

    /// Throws std::runtime_error when no process can be made. A program that cannot be run shows as exit status 127.
    static Child spawn(const tSpawn& spawn);

    pid_t pid() const { return mPid; }
    /// Started and not yet waited for.
    explicit operator bool() const { return mPid > 0; }
    /// Sends a signal; nothing when it has been waited for.
    void signal(int number) const;
    /// Waits until it has ended, and leaves it to wait() to take note of it; false at the deadline.
    bool ended(milliseconds deadline) const;
    /// Waits until it has ended; nothing at the deadline. Later calls give the same again.
    std::optional<tExit> wait(milliseconds deadline = kDeadline);
    /// SIGKILL, to its own children too, and wait.
    void kill();

private:
    pid_t mPid = -1;
    UniqueFd mPidFd;
    std::optional<tExit> mExit;
};

/// The environment of this process, without the names given.
std::vector<std::string> environmentWithout(const std::vector<std::string>& names);

} // namespace sim
