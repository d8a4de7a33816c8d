#pragma once

#include <cstdio>
#include <cstdlib>

/// What must hold for every input; a violation is a crash, which the fuzzer keeps.
inline void check(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "violated: %s\n", what);
    std::abort();
}
