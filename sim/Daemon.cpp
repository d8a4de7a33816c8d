#include "sim/Daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <utility>

namespace sim {

namespace {

std::size_t countOf(const std::string& text, const std::string& part)
{
    std::size_t out = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++out;
    return out;
}

UniqueFd makePipe(UniqueFd& readEnd)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0)
        throw std::runtime_error("no pipe");
    readEnd.reset(ends[0]);
    return UniqueFd(ends[1]);
}

} // namespace

Daemon::Daemon(Timeline& timeline, const PrivateBus& systemBus, const PrivateBus& userBus)
    : mTimeline(timeline)
    , mSystemBus(systemBus)
    , mUserBus(userBus)
{}

Daemon::~Daemon()
{
    kill();
}

void Daemon::start(const std::string& executable, const std::vector<std::string>& arguments)
{
    tOptions options;
    options.arguments = arguments;
    start(executable, options);
}

void Daemon::start(const std::string& executable, const tOptions& options)
{
    kill();
    {
        const std::lock_guard lock(mMutex);
        for (tStream* stream : {&mOut, &mErr}) {
            stream->bytes.clear();
            stream->lineStart = 0;
        }
    }
    const UniqueFd out = makePipe(mOut.fd);
    const UniqueFd err = makePipe(mErr.fd);

    Child::tSpawn spawn;
    spawn.argv = options.wrapper;
    spawn.argv.push_back(executable);
    spawn.argv.insert(spawn.argv.end(), options.arguments.begin(), options.arguments.end());
    std::vector<std::string> without = {"DBUS_SYSTEM_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS",
                                        "XDG_RUNTIME_DIR",         "NOTIFY_SOCKET",
                                        "WATCHDOG_USEC",           "WATCHDOG_PID"};
    for (const auto& [name, value] : options.environment)
        without.push_back(name);
    spawn.environment = environmentWithout(without);
    spawn.environment.push_back("DBUS_SYSTEM_BUS_ADDRESS=" + mSystemBus.address());
    spawn.environment.push_back("DBUS_SESSION_BUS_ADDRESS=" + mUserBus.address());
    for (const auto& [name, value] : options.environment)
        spawn.environment.push_back(name + "=" + value);
    spawn.out = options.stdoutFd >= 0 ? options.stdoutFd : out.get();
    spawn.err = err.get();
    spawn.closeOut = options.closeStdout;
    {
        const std::lock_guard lock(mChildMutex);
        mChild = Child::spawn(spawn);
    }
    mReader = std::thread([this] { readAll(); });
}

bool Daemon::running()
{
    return mChild && !mChild.ended(milliseconds{0});
}

void Daemon::signal(int number)
{
    const std::lock_guard lock(mChildMutex);
    mChild.signal(number);
}

std::optional<tExit> Daemon::waitExit(milliseconds deadline)
{
    if (!mChild.ended(deadline))
        return std::nullopt;
    std::optional<tExit> exit;
    {
        const std::lock_guard lock(mChildMutex);
        exit = mChild.wait(milliseconds{0});
    }
    if (exit && mReader.joinable())
        mReader.join();
    return exit;
}

void Daemon::kill()
{
    {
        const std::lock_guard lock(mChildMutex);
        mChild.kill();
    }
    if (mReader.joinable())
        mReader.join();
}

void Daemon::readAll()
{
    while (mOut.fd || mErr.fd) {
        pollfd pollers[] = {{mOut.fd.get(), POLLIN, 0}, {mErr.fd.get(), POLLIN, 0}};
        if (poll(pollers, 2, -1) < 0)
            continue;
        if (pollers[0].revents != 0)
            take(mOut);
        if (pollers[1].revents != 0)
            take(mErr);
    }
}

void Daemon::take(tStream& stream)
{
    std::array<char, 65536> chunk{};
    ssize_t got = 0;
    {
        const std::lock_guard lock(mMutex);
        got = read(stream.fd.get(), chunk.data(), chunk.size());
        if (got <= 0)
            stream.fd.reset();
        else
            stream.bytes.append(chunk.data(), static_cast<std::size_t>(got));
    }
    endLines(stream, got <= 0);
    mRead.notify_all();
}

void Daemon::endLines(tStream& stream, bool atEnd)
{
    // Only this thread changes the bytes while the daemon runs, so they may be read here without the lock.
    for (;;) {
        std::size_t end = stream.bytes.find('\n', stream.lineStart);
        if (end == std::string::npos && atEnd && stream.lineStart < stream.bytes.size())
            end = stream.bytes.size();
        if (end == std::string::npos)
            return;
        tEvent event;
        event.channel = stream.channel;
        event.service = "vorlan";
        event.arguments = stream.bytes.substr(stream.lineStart, end - stream.lineStart);
        mTimeline.add(std::move(event));
        stream.lineStart = end + 1;
    }
}

std::string Daemon::written(const tStream& stream) const
{
    std::unique_lock lock(mMutex);
    mRead.wait_for(lock, kDeadline, [&stream] {
        int waiting = 0;
        return !stream.fd || ioctl(stream.fd.get(), FIONREAD, &waiting) < 0 || waiting == 0;
    });
    return stream.bytes;
}

std::string Daemon::out() const
{
    return written(mOut);
}

std::string Daemon::err() const
{
    return written(mErr);
}

bool Daemon::waitForOutput(const std::string& text, milliseconds deadline, std::size_t times) const
{
    std::unique_lock lock(mMutex);
    return mRead.wait_until(lock, Clock::now() + deadline,
                            [&] { return countOf(mOut.bytes, text) + countOf(mErr.bytes, text) >= times; });
}

} // namespace sim
