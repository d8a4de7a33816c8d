#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>

// The daemon's log: lines on standard output and standard error, from any thread, in the order in which they are
// written. Each line is one write. A reader that stands still holds nobody up for long: lines wait for it a second in
// all; then they are dropped and counted until it takes some again. A hundredth of the time in which it keeps up is
// given back, so a slow reader does no harm either. A line of which a part went out is completed before any other.
// Outputs that are closed, full or broken take nothing and cost nothing.

/// One line on standard output, made of at most 7 parts; the newline is added. Needs no memory.
void logOut(std::initializer_list<std::string_view> parts);

/// The same on standard error.
void logErr(std::initializer_list<std::string_view> parts);

/// Lines that an output did not take so far, not even in part.
std::uint64_t logDropped();
