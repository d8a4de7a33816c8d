#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>

// The daemon's log: lines on standard output and standard error, from any thread, in the order in which they are
// written. Each line is one write. A reader that stands still holds nobody up for long: the first line that cannot be
// written waits a second; then lines are dropped and counted until the reader takes some again. A line of which a part
// went out is completed before any other. Outputs that are closed, full or broken take nothing and cost nothing.

/// One line on standard output, made of at most 7 parts; the newline is added. Needs no memory.
void logOut(std::initializer_list<std::string_view> parts);

/// The same on standard error.
void logErr(std::initializer_list<std::string_view> parts);

/// Lines that were dropped so far because their reader stood still.
std::uint64_t logDropped();
