#pragma once

#include "sim/Handles.h"
#include "sim/Timeline.h"
#include "tests/support/StandardStream.h"

#include <optional>
#include <string>
#include <vector>

/// What this process writes to its standard error stream while the object lives. Sanitizer reports still go where they
/// went before. For one thread.
class StderrCapture
{
public:
    StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    /// Everything so far, and since the last clear().
    std::string text();
    /// The same, a text for each write of the process.
    std::vector<std::string> writes();
    void clear();
    /// Waits until the text has come so many times.
    bool waitFor(const std::string& part, std::size_t times = 1, sim::milliseconds deadline = sim::kDeadline);

private:
    void drain();

    sim::UniqueFd mRead;
    std::optional<StandardStream> mStream;
    std::vector<std::string> mWrites;
};

/// How often the part is found in the text.
std::size_t countOf(const std::string& text, const std::string& part);
