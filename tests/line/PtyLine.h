#pragma once

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

/// QV's end of a line: the master of a pseudo terminal whose slave is the device that the serial port opens.
class PtyLine
{
public:
    using tBytes = std::vector<unsigned char>;

    PtyLine()
        : mMaster(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
    {
        char path[64] = "";
        if (mMaster < 0 || grantpt(mMaster) < 0 || unlockpt(mMaster) < 0 || ptsname_r(mMaster, path, sizeof path) != 0)
            throw std::runtime_error("no pseudo terminal");
        mDevice = path;
        mSlave = open(path, O_RDWR | O_NOCTTY | O_CLOEXEC); // keeps the attributes while the port is closed
    }
    ~PtyLine() { hangUp(); }
    PtyLine(const PtyLine&) = delete;
    PtyLine& operator=(const PtyLine&) = delete;

    const std::string& device() const { return mDevice; }

    /// Whoever has the device open sees a hung-up line from now on.
    void hangUp()
    {
        for (int* fd : {&mMaster, &mSlave}) {
            if (*fd >= 0)
                close(*fd);
            *fd = -1;
        }
    }

    termios attributes() const
    {
        termios attributes{};
        if (tcgetattr(mSlave, &attributes) != 0)
            throw std::runtime_error("no attributes");
        return attributes;
    }
    void setAttributes(const termios& attributes) const
    {
        if (tcsetattr(mSlave, TCSANOW, &attributes) != 0)
            throw std::runtime_error("attributes refused");
    }
    /// Whatever is written arrives as it is, from now on.
    void makeRaw() const
    {
        auto raw = attributes();
        cfmakeraw(&raw);
        setAttributes(raw);
    }

    /// Writes all, waiting for the other end to read. False when it does not within ten seconds.
    bool send(const tBytes& bytes) const
    {
        for (std::size_t sent = 0; sent < bytes.size();) {
            if (!await(POLLOUT, std::chrono::seconds(10)))
                return false;
            const auto count = write(mMaster, bytes.data() + sent, bytes.size() - sent);
            sent += count > 0 ? static_cast<std::size_t>(count) : 0;
        }
        return true;
    }

    /// What comes within the time: as soon as something is there, no more than `most`; nothing otherwise.
    tBytes receive(std::size_t most, std::chrono::milliseconds time = std::chrono::seconds(10)) const
    {
        if (!await(POLLIN, time))
            return {};
        tBytes bytes(most);
        const auto count = read(mMaster, bytes.data(), most);
        bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return bytes;
    }

    /// Exactly so many bytes, or fewer after ten seconds of silence.
    tBytes receiveAll(std::size_t size) const
    {
        tBytes bytes;
        while (bytes.size() < size) {
            const auto more = receive(size - bytes.size());
            if (more.empty())
                break;
            bytes.insert(bytes.end(), more.begin(), more.end());
        }
        return bytes;
    }

private:
    bool await(short events, std::chrono::milliseconds time) const
    {
        pollfd line{mMaster, events, 0};
        return poll(&line, 1, static_cast<int>(time.count())) == 1 && (line.revents & events) != 0;
    }

    int mMaster;
    int mSlave = -1;
    std::string mDevice;
};
