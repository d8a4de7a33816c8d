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
#include <mutex>
#include <new>
#include <optional>
#include <string>

using std::chrono::steady_clock;

namespace {

constexpr std::chrono::milliseconds kPatience{1000};

/// What is left to be written of a line.
class Pieces
{
public:
    explicit Pieces(std::initializer_list<std::string_view> parts)
    {
        for (const std::string_view part : parts)
            add(part);
        add("\n");
    }

    iovec* data() const { return const_cast<iovec*>(mPieces) + mFirst; }
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

    std::string text() const
    {
        std::string out;
        for (int i = mFirst; i < mCount; ++i)
            out.append(static_cast<const char*>(mPieces[i].iov_base), mPieces[i].iov_len);
        return out;
    }

private:
    static constexpr int kMax = 8;

    void add(std::string_view part)
    {
        if (!part.empty() && mCount < kMax)
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
        mStalled = false;
        mRest.reset();
        mDevice = file.st_dev;
        mInode = file.st_ino;
        mSocket = S_ISSOCK(file.st_mode);
        mMayBlock = S_ISFIFO(file.st_mode) || S_ISCHR(file.st_mode);
        // A standard descriptor shares its flags with other processes: not to block is asked of one of our own.
        if (mMayBlock)
            mOwnFd = ::open(fd == STDOUT_FILENO ? "/proc/self/fd/1" : "/proc/self/fd/2",
                            O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }

    /// False when the line was dropped because the reader stands still.
    bool write(int fd, Pieces line)
    {
        const auto end = steady_clock::now() + (mStalled ? std::chrono::milliseconds{0} : kPatience);
        const std::size_t size = line.size();
        mStalled = !sendRest(fd, end) || !send(fd, line, end);
        if (mStalled && line.size() < size)
            keep(line);
        return !mStalled || line.size() < size;
    }

private:
    /// Completes the line of which a part went out. False when the reader stands still.
    bool sendRest(int fd, steady_clock::time_point end)
    {
        if (!mRest)
            return true;
        Pieces rest({*mRest});
        const bool sent = send(fd, rest, end);
        if (sent)
            mRest.reset();
        else
            keep(rest);
        return sent;
    }

    void keep(const Pieces& line)
    {
        try {
            std::string text = line.text();
            text.pop_back(); // each line is given its newline when it is sent
            mRest = std::move(text);
        } catch (const std::bad_alloc&) {
            mRest.emplace();
        }
    }

    /// False when the reader stands still; what cannot be written for another reason counts as written.
    bool send(int fd, Pieces& line, steady_clock::time_point end)
    {
        while (!line.empty()) {
            const ssize_t written = put(fd, line);
            if (written >= 0)
                line.advance(static_cast<std::size_t>(written));
            else if (errno == EAGAIN && !waitForReader(fd, end))
                return false;
            else if (errno != EAGAIN && errno != EINTR)
                return true;
        }
        return true;
    }

    /// Never blocks; EAGAIN when the reader has left no room.
    ssize_t put(int fd, const Pieces& line) const
    {
        msghdr message{};
        message.msg_iov = line.data();
        message.msg_iovlen = static_cast<std::size_t>(line.count());
        if (mSocket)
            return sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (!mMayBlock || mOwnFd >= 0)
            return writev(mOwnFd >= 0 ? mOwnFd : fd, line.data(), line.count());
        // Not ours to open: where there is room at all, there is room for so much.
        pollfd output{fd, POLLOUT, 0};
        if (poll(&output, 1, 0) == 0) {
            errno = EAGAIN;
            return -1;
        }
        return ::write(fd, line.data()->iov_base, std::min<std::size_t>(line.data()->iov_len, PIPE_BUF));
    }

    static bool waitForReader(int fd, steady_clock::time_point end)
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now()).count();
        pollfd output{fd, POLLOUT, 0};
        if (left > 0)
            poll(&output, 1, static_cast<int>(left));
        return left > 0;
    }

    dev_t mDevice = 0;
    ino_t mInode = 0;
    bool mSocket = false;
    bool mMayBlock = false;
    int mOwnFd = -1;                  ///< the same output with O_NONBLOCK; -1: none
    bool mStalled = false;            ///< the last line waited in vain: the next ones do not wait
    std::optional<std::string> mRest; ///< of a line of which a part went out, without its newline
};

std::mutex sMutex;
std::atomic<std::uint64_t> sDropped = 0;

/// To be called with sMutex held.
Sink* sinkOf(int fd)
{
    static auto* const sinks = new Sink[2]; // never destroyed: a thread may write its last line late at the exit
    struct stat file
    {};
    if (fstat(fd, &file) != 0)
        return nullptr;
    for (Sink* sink : {&sinks[0], &sinks[1]})
        if (sink->is(file))
            return sink;
    Sink& own = sinks[fd == STDOUT_FILENO ? 0 : 1];
    own.open(fd, file);
    return &own;
}

void log(int fd, std::initializer_list<std::string_view> parts)
{
    const std::lock_guard lock(sMutex);
    Sink* sink = sinkOf(fd);
    if (sink != nullptr && !sink->write(fd, Pieces(parts)))
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
