#include "tests/unit/link/SystemScript.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>

namespace {

SystemScript* sScript = nullptr;

bool scripted(int fd)
{
    return sScript != nullptr && fd == SystemScript::kFd;
}

void note(std::string call)
{
    sScript->mCalls.push_back(std::move(call));
}

SystemScript::tAnswer next(std::deque<SystemScript::tAnswer>& script, SystemScript::tAnswer whenEmpty)
{
    if (!script.empty()) {
        whenEmpty = script.front();
        script.pop_front();
    }
    if (whenEmpty.result < 0)
        errno = whenEmpty.error;
    return whenEmpty;
}

} // namespace

SystemScript::SystemScript()
{
    sScript = this;
}

SystemScript::~SystemScript()
{
    sScript = nullptr;
}

// The linker gives these names to every call of the bare name, and the real_ ones to the system's own function.
extern "C" {

int realOpen(const char* path, int flags, ...) asm("__real_open");
int realClose(int fd) asm("__real_close");
int realPoll(pollfd* fds, nfds_t count, int timeoutMs) asm("__real_poll");
ssize_t realRead(int fd, void* buf, size_t len) asm("__real_read");
ssize_t realWrite(int fd, const void* buf, size_t len) asm("__real_write");
int realNanosleep(const timespec* time, timespec* left) asm("__real_nanosleep");
int realTcgetattr(int fd, termios* attributes) asm("__real_tcgetattr");
int realTcsetattr(int fd, int action, const termios* attributes) asm("__real_tcsetattr");

int scriptedOpen(const char* path, int flags, ...) asm("__wrap_open");
int scriptedClose(int fd) asm("__wrap_close");
int scriptedPoll(pollfd* fds, nfds_t count, int timeoutMs) asm("__wrap_poll");
ssize_t scriptedRead(int fd, void* buf, size_t len) asm("__wrap_read");
ssize_t scriptedWrite(int fd, const void* buf, size_t len) asm("__wrap_write");
int scriptedNanosleep(const timespec* time, timespec* left) asm("__wrap_nanosleep");
int scriptedTcgetattr(int fd, termios* attributes) asm("__wrap_tcgetattr");
int scriptedTcsetattr(int fd, int action, const termios* attributes) asm("__wrap_tcsetattr");

int scriptedOpen(const char* path, int flags, ...)
{
    if (sScript == nullptr || std::strcmp(path, SystemScript::kDevice) != 0) {
        va_list more;
        va_start(more, flags);
        const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
        va_end(more);
        return realOpen(path, flags, mode);
    }
    note("open");
    sScript->mOpenFlags = flags;
    errno = sScript->mOpenError;
    return sScript->mOpenError == 0 ? SystemScript::kFd : -1;
}

int scriptedClose(int fd)
{
    if (!scripted(fd))
        return realClose(fd);
    note("close");
    return 0;
}

int scriptedPoll(pollfd* fds, nfds_t count, int timeoutMs)
{
    if (count != 1 || !scripted(fds->fd))
        return realPoll(fds, count, timeoutMs);
    note((fds->events == POLLIN    ? "poll in "
          : fds->events == POLLOUT ? "poll out "
                                   : "poll ? ") +
         std::to_string(timeoutMs));
    const auto answer = next(sScript->mPolls, {1, 0, fds->events, ""});
    fds->revents = answer.revents;
    return answer.result;
}

ssize_t scriptedRead(int fd, void* buf, size_t len)
{
    if (!scripted(fd))
        return realRead(fd, buf, len);
    note("read " + std::to_string(len));
    const auto answer = next(sScript->mReads, {0});
    std::memcpy(buf, answer.bytes.data(), answer.bytes.size());
    return answer.result;
}

ssize_t scriptedWrite(int fd, const void* buf, size_t len)
{
    if (!scripted(fd))
        return realWrite(fd, buf, len);
    note("write " + std::string(static_cast<const char*>(buf), len));
    return next(sScript->mWrites, {static_cast<int>(len)}).result;
}

int scriptedNanosleep(const timespec* time, timespec* left)
{
    if (sScript == nullptr)
        return realNanosleep(time, left);
    const auto asked = std::chrono::seconds(time->tv_sec) + std::chrono::nanoseconds(time->tv_nsec);
    if (time->tv_nsec < 0 || time->tv_nsec > 999'999'999) {
        note("sleep refused");
        errno = EINVAL;
        return -1;
    }
    note("sleep " + std::to_string(asked.count()) + " ns");
    sScript->mSlept += asked;
    if (sScript->mInterruptedSleeps.empty())
        return 0;
    const auto rest = sScript->mInterruptedSleeps.front();
    sScript->mInterruptedSleeps.pop_front();
    sScript->mSlept -= rest;
    *left = {static_cast<time_t>(rest.count() / 1'000'000'000), static_cast<long>(rest.count() % 1'000'000'000)};
    errno = EINTR;
    return -1;
}

int scriptedTcgetattr(int fd, termios* attributes)
{
    if (!scripted(fd))
        return realTcgetattr(fd, attributes);
    note("tcgetattr");
    if (sScript->mGetAttributesResult == 0)
        *attributes = sScript->mAttributes;
    return sScript->mGetAttributesResult;
}

int scriptedTcsetattr(int fd, int action, const termios* attributes)
{
    if (!scripted(fd))
        return realTcsetattr(fd, action, attributes);
    note("tcsetattr");
    sScript->mSetAction = action;
    sScript->mAttributes = *attributes;
    return sScript->mSetAttributesResult;
}

} // extern "C"
