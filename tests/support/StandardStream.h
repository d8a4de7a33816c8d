#pragma once

#include "sim/Handles.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif

/// Another file in the place of this process's standard output or standard error while it lives. Sanitizer reports
/// still go where they went before.
class StandardStream
{
public:
    StandardStream(int stream, int file)
        : mStream(stream)
        , mBefore(fcntl(stream, F_DUPFD_CLOEXEC, 3))
    {
        dup2(file, mStream);
        reportsGoTo(mBefore.get());
    }
    ~StandardStream()
    {
        dup2(mBefore.get(), mStream);
        reportsGoTo(STDERR_FILENO);
    }
    StandardStream(const StandardStream&) = delete;
    StandardStream& operator=(const StandardStream&) = delete;

private:
    void reportsGoTo([[maybe_unused]] int fd) const
    {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        if (mStream == STDERR_FILENO)
            __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(fd)));
#endif
    }

    const int mStream;
    const sim::UniqueFd mBefore;
};
