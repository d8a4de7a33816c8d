#include "sim/Child.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

namespace sim {

namespace {

/// Makes all child processes: the kernel ends a child that asked for it with the thread that made it, so that thread
/// must last as long as this process.
class Spawner
{
public:
    static Spawner& instance()
    {
        static auto* spawner = new Spawner; // never destroyed: its thread uses it until the process ends
        return *spawner;
    }

    pid_t run(const std::function<pid_t()>& function)
    {
        std::packaged_task<pid_t()> task(function);
        auto result = task.get_future();
        {
            const std::lock_guard lock(mMutex);
            mTasks.push_back(std::move(task)); // not a pointer: get() returns while the task is still being left
        }
        mChanged.notify_one();
        return result.get();
    }

private:
    Spawner()
    {
        std::thread([this] { loop(); }).detach();
    }

    [[noreturn]] void loop()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        for (;;) {
            std::unique_lock lock(mMutex);
            mChanged.wait(lock, [this] { return !mTasks.empty(); });
            auto task = std::move(mTasks.front());
            mTasks.pop_front();
            lock.unlock();
            task();
        }
    }

    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<std::packaged_task<pid_t()>> mTasks;
};

std::vector<char*> pointers(const std::vector<std::string>& texts)
{
    std::vector<char*> out;
    out.reserve(texts.size() + 1);
    for (const std::string& text : texts)
        out.push_back(const_cast<char*>(text.c_str())); // exec takes them so and does not write
    out.push_back(nullptr);
    return out;
}

/// In the child: only calls that are safe after a fork of a process with threads.
[[noreturn]] void runChild(const Child::tSpawn& spawn, char* const* argv, char* const* environment, pid_t parent)
{
    setsid();
    if (!spawn.outlives) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(127);
    }
    struct sigaction byDefault = {};
    byDefault.sa_handler = SIG_DFL;
    for (int number = 1; number < 32; ++number)
        sigaction(number, &byDefault, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);

    // first above the standard descriptors, so that no dup2 overwrites another's source
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    const auto above = [](int fd) { return fcntl(fd, F_DUPFD_CLOEXEC, 10); };
    const int in = above(spawn.in >= 0 ? spawn.in : null);
    const int out = above(spawn.out >= 0 ? spawn.out : null);
    const int err = spawn.err >= 0 ? above(spawn.err) : -1;
    const int extra = spawn.extra >= 0 ? above(spawn.extra) : -1;
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    if (err >= 0)
        dup2(err, STDERR_FILENO);
    if (extra >= 0)
        dup2(extra, 3);
    close_range(extra >= 0 ? 4 : 3, ~0U, 0);
    if (spawn.closeOut)
        close(STDOUT_FILENO);
    execvpe(argv[0], argv, environment);
    _exit(127);
}

} // namespace

std::string tExit::text() const
{
    return (signalled ? "signal " : "status ") + std::to_string(value);
}

Child::Child(Child&& other) noexcept
    : mPid(std::exchange(other.mPid, -1))
    , mPidFd(std::move(other.mPidFd))
    , mExit(std::exchange(other.mExit, {}))
{}

Child& Child::operator=(Child&& other) noexcept
{
    kill();
    mPid = std::exchange(other.mPid, -1);
    mPidFd = std::move(other.mPidFd);
    mExit = std::exchange(other.mExit, {});
    return *this;
}

Child::~Child()
{
    kill();
}

Child Child::spawn(const tSpawn& spawn)
{
    const auto argv = pointers(spawn.argv);
    const auto environment = pointers(spawn.environment);
    const pid_t parent = getpid();
    Child child;
    child.mPid = Spawner::instance().run([&]() -> pid_t {
        const pid_t pid = fork();
        if (pid == 0)
            runChild(spawn, argv.data(), environment.data(), parent);
        return pid;
    });
    if (child.mPid < 0)
        throw std::runtime_error(std::string("no process for ") + spawn.argv.front());
    child.mPidFd.reset(static_cast<int>(syscall(SYS_pidfd_open, child.mPid, 0)));
    if (!child.mPidFd)
        throw std::runtime_error(std::string("pidfd_open: ") + std::strerror(errno));
    return child;
}

void Child::signal(int number) const
{
    if (mPid > 0)
        ::kill(mPid, number);
}

bool Child::ended(milliseconds deadline) const
{
    if (mPid <= 0)
        return true;
    const auto end = Clock::now() + deadline;
    for (;;) {
        pollfd poller{mPidFd.get(), POLLIN, 0};
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        const int ready = poll(&poller, 1, static_cast<int>(std::max(left, milliseconds{0}).count()));
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

std::optional<tExit> Child::wait(milliseconds deadline)
{
    if (mPid <= 0)
        return mExit;
    if (!ended(deadline))
        return std::nullopt;
    int status = 0;
    while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
    }
    mPid = -1;
    mPidFd.reset();
    mExit = WIFSIGNALED(status) ? killed(WTERMSIG(status)) : exited(WEXITSTATUS(status));
    return mExit;
}

void Child::kill()
{
    if (mPid <= 0)
        return;
    ::kill(-mPid, SIGKILL); // its own children too
    ::kill(mPid, SIGKILL);
    wait(std::chrono::minutes{1});
}

std::vector<std::string> environmentWithout(const std::vector<std::string>& names)
{
    std::vector<std::string> out;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (std::find(names.begin(), names.end(), text.substr(0, text.find('='))) == names.end())
            out.push_back(text);
    }
    return out;
}

} // namespace sim
