#include "os/Log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <mutex>
#include <new>
#include <string>

using std::chrono::steady_clock;

namespace {

constexpr std::chrono::nanoseconds kPatience = std::chrono::seconds{1};
constexpr int kRegain = 100; ///< of the time in which the reader keeps up such a part is patience regained

/// What is left to be written of a text.
class Pieces
{
public:
    static Pieces ofLine(std::initializer_list<std::string_view> parts)
    {
        Pieces out;
        for (const std::string_view part : parts)
            if (out.mCount < kMax - 1)
                out.add(part);
        out.add("\n");
        return out;
    }

    static Pieces ofText(std::string_view text)
    {
        Pieces out;
        out.add(text);
        return out;
    }

    iovec* data() { return mPieces + mFirst; }
    int count() const { return mCount - mFirst; }
    bool empty() const { return mFirst == mCount; }

    std::size_t size() const
    {
        std::size_t out = 0;
        for (int i = mFirst; i < mCount; ++i)
            out += mPieces[i].iov_len;
        return out;
    }

    void advance(std::size_t written)
    {
        for (; !empty() && written >= mPieces[mFirst].iov_len; ++mFirst)
            written -= mPieces[mFirst].iov_len;
        if (!empty()) {
            iovec& piece = mPieces[mFirst];
            piece.iov_base = static_cast<char*>(piece.iov_base) + written;
            piece.iov_len -= written;
        }
    }

    void shortenTo(std::size_t size)
    {
        for (int i = mFirst; i < mCount; ++i) {
            mPieces[i].iov_len = std::min(mPieces[i].iov_len, size);
            size -= mPieces[i].iov_len;
        }
    }

    std::string text() const
    {
        std::string out;
        out.reserve(size());
        for (int i = mFirst; i < mCount; ++i)
            out.append(static_cast<const char*>(mPieces[i].iov_base), mPieces[i].iov_len);
        return out;
    }

private:
    static constexpr int kMax = 8;

    void add(std::string_view part)
    {
        if (!part.empty())
            mPieces[mCount++] = {const_cast<char*>(part.data()), part.size()};
    }

    iovec mPieces[kMax]{};
    int mFirst = 0;
    int mCount = 0;
};

/// One output, which both streams may share.
class Sink
{
public:
    bool is(const struct stat& file) const { return mDevice == file.st_dev && mInode == file.st_ino; }

    /// The standard stream `fd` is this file from now on.
    void open(int fd, const struct stat& file)
    {
        if (mOwnFd >= 0)
            close(mOwnFd);
        mOwnFd = -1;
        mPatience = kPatience;
        mLast = steady_clock::now();
        mRest.clear();
        mDevice = file.st_dev;
        mInode = file.st_ino;
        mSocket = S_ISSOCK(file.st_mode);
        mMayBlock = S_ISFIFO(file.st_mode) || S_ISCHR(file.st_mode);
        mSureRoom = S_ISFIFO(file.st_mode) ? PIPE_BUF : 1;
        // A standard descriptor shares its flags with other processes: not to block is asked of one of our own.
        if (mMayBlock)
            mOwnFd = ::open(fd == STDOUT_FILENO ? "/proc/self/fd/1" : "/proc/self/fd/2",
                            O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }

    /// False when the whole line was dropped.
    bool write(int fd, Pieces line)
    {
        const std::size_t size = line.size();
        if (sendRest(fd))
            send(fd, line);
        const auto now = steady_clock::now();
        if (line.empty())
            mPatience = std::min(mPatience + (now - mLast) / kRegain, kPatience);
        else if (line.size() < size)
            keep(line);
        mLast = now;
        return line.size() < size;
    }

private:
    /// Completes the line of which a part went out. False while that cannot be done.
    bool sendRest(int fd)
    {
        Pieces rest = Pieces::ofText(mRest);
        send(fd, rest);
        mRest.erase(0, mRest.size() - rest.size());
        if (!mRest.empty())
            return false;
        mRest.shrink_to_fit();
        return true;
    }

    void keep(const Pieces& line)
    {
        try {
            mRest = line.text();
        } catch (const std::bad_alloc&) {
            mRest = "\n"; // the line is cut, and ends all the same
        }
    }

    /// Up to its end, or until the reader was waited for in vain or the output is found broken.
    void send(int fd, Pieces& line)
    {
        while (!line.empty()) {
            const ssize_t written = put(fd, line);
            if (written > 0)
                line.advance(static_cast<std::size_t>(written));
            else if (written == 0 || (errno != EINTR && (errno != EAGAIN || !waitForReader(fd))))
                return;
        }
    }

    /// Never blocks; EAGAIN when the reader has left no room.
    ssize_t put(int fd, Pieces line) const
    {
        if (mSocket) {
            msghdr message{};
            message.msg_iov = line.data();
            message.msg_iovlen = static_cast<std::size_t>(line.count());
            return sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        if (mOwnFd >= 0 || !mMayBlock)
            return writev(mOwnFd >= 0 ? mOwnFd : fd, line.data(), line.count());
        // Not ours to open, a pipe of another user for instance: where there is room at all, there is room for so much.
        pollfd output{fd, POLLOUT, 0};
        const int ready = poll(&output, 1, 0);
        if (ready == 0)
            errno = EAGAIN;
        if (ready <= 0)
            return -1;
        line.shortenTo(mSureRoom);
        return writev(fd, line.data(), line.count());
    }

    /// False when all patience is used up.
    bool waitForReader(int fd)
    {
        if (mPatience.count() <= 0)
            return false;
        const auto start = steady_clock::now();
        const auto seconds = std::chrono::floor<std::chrono::seconds>(mPatience);
        const timespec left{static_cast<time_t>(seconds.count()), static_cast<long>((mPatience - seconds).count())};
        pollfd output{fd, POLLOUT, 0};
        ppoll(&output, 1, &left, nullptr);
        mPatience = std::max(mPatience - (steady_clock::now() - start), std::chrono::nanoseconds{0});
        return true;
    }

    dev_t mDevice = 0;
    ino_t mInode = 0;
    bool mSocket = false;
    bool mMayBlock = false;
    std::size_t mSureRoom = 0;             ///< bytes for which there is room when there is any
    int mOwnFd = -1;                       ///< the same output with O_NONBLOCK; -1: none
    std::chrono::nanoseconds mPatience{0}; ///< the reader may be waited for so long
    steady_clock::time_point mLast;        ///< of the last line, taken or dropped
    std::string mRest;                     ///< of a line of which a part went out, with its newline
};

std::mutex sMutex;
std::atomic<std::uint64_t> sDropped = 0;

struct tSinks
{
    Sink out;
    Sink err;
};

/// To be called with sMutex held.
Sink* sinkOf(int fd)
{
    // never destroyed: a thread may write its last line late at the exit
    alignas(tSinks) static std::byte memory[sizeof(tSinks)];
    static auto* const sinks = new (memory) tSinks;
    struct stat file
    {};
    if (fstat(fd, &file) != 0)
        return nullptr;
    for (Sink* sink : {&sinks->out, &sinks->err})
        if (sink->is(file))
            return sink;
    Sink& own = fd == STDOUT_FILENO ? sinks->out : sinks->err;
    own.open(fd, file);
    return &own;
}

void log(int fd, std::initializer_list<std::string_view> parts)
{
    const std::lock_guard lock(sMutex);
    Sink* sink = sinkOf(fd);
    if (sink == nullptr || !sink->write(fd, Pieces::ofLine(parts)))
        ++sDropped;
}

} // namespace

void logOut(std::initializer_list<std::string_view> parts)
{
    log(STDOUT_FILENO, parts);
}

void logErr(std::initializer_list<std::string_view> parts)
{
    log(STDERR_FILENO, parts);
}

std::uint64_t logDropped()
{
    return sDropped;
}
