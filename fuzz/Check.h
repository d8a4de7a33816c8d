#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

/// Standard error as it was at the start: while it fuzzes, libFuzzer keeps the daemon's own lines from it.
inline const int kReportFd = dup(STDERR_FILENO);

/// What must hold for every input; a violation is a crash, which the fuzzer keeps.
inline void check(bool holds, const char* what)
{
    if (holds)
        return;
    dprintf(kReportFd, "violated: %s\n", what);
    std::abort();
}
