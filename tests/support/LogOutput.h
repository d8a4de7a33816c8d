#pragma once

#include "sim/Handles.h"
#include "sim/Timeline.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// Something to write a log to, and its reader, who stands still unless told to read.
class LogOutput
{
public:
    static LogOutput pipe(int flags = 0)
    {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC | flags) != 0)
            throw std::runtime_error("no pipe");
        return LogOutput(ends[0], ends[1]);
    }

    static LogOutput socket(int type)
    {
        std::array<int, 2> ends{};
        if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()) != 0)
            throw std::runtime_error("no socket");
        return LogOutput(ends[0], ends[1]);
    }

    /// It passes each byte on as it is.
    static LogOutput terminal()
    {
        const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
            throw std::runtime_error("no terminal");
        LogOutput out(master, open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC));
        termios attributes{};
        tcgetattr(out.fd(), &attributes);
        cfmakeraw(&attributes);
        tcsetattr(out.fd(), TCSANOW, &attributes);
        return out;
    }

    int fd() const { return mWrite.get(); }
    void closeWriteEnd() { mWrite.reset(); }
    void closeReader() { mRead.reset(); }

    /// Writes until there is no room any more, nor comes of itself. Returns what was written.
    std::string fill() const
    {
        const int flags = fcntl(fd(), F_GETFL);
        fcntl(fd(), F_SETFL, flags | O_NONBLOCK);
        std::string out;
        pollfd room{fd(), POLLOUT, 0};
        do
            while (write(fd(), "#", 1) == 1)
                out += '#';
        while (poll(&room, 1, 10) > 0);
        fcntl(fd(), F_SETFL, flags);
        return out;
    }

    /// What one read gives of what is there, or comes within the time; a packet where writes are kept apart.
    std::string readSome(std::size_t most = 1U << 18U, sim::milliseconds patience = sim::milliseconds{10}) const
    {
        std::string out(most, '\0');
        pollfd ready{mRead.get(), POLLIN, 0};
        const bool any = poll(&ready, 1, static_cast<int>(patience.count())) > 0;
        const ssize_t got = any ? read(mRead.get(), out.data(), out.size()) : 0;
        out.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return out;
    }

    /// All up to this text; what came at the deadline.
    std::string readTo(const std::string& end) const
    {
        const auto deadline = sim::Clock::now() + sim::milliseconds{10000};
        std::string out;
        while (!out.ends_with(end) && sim::Clock::now() < deadline)
            out += readSome();
        return out;
    }

    /// A text for each write, of an output that keeps them apart.
    std::vector<std::string> writes() const
    {
        std::vector<std::string> out;
        for (std::string one = readSome(); !one.empty(); one = readSome())
            out.push_back(std::move(one));
        return out;
    }

private:
    LogOutput(int readEnd, int writeEnd)
        : mRead(readEnd)
        , mWrite(writeEnd)
    {}

    sim::UniqueFd mRead;
    sim::UniqueFd mWrite;
};
