#pragma once

#include <chrono>
#include <iosfwd>
#include <vector>

namespace qv {

/// Round trips and what they say.
struct tPingReport
{
    unsigned sent = 0; ///< requests, repeats not counted
    unsigned repeats = 0;
    std::vector<std::chrono::nanoseconds> times; ///< of those that were answered, in any order

    /// The smallest time that at least `percent` of the times do not exceed. There must be one.
    std::chrono::nanoseconds percentile(unsigned percent) const;
    void writeText(std::ostream& out, bool withHistogram = true) const;
    void writeJson(std::ostream& out) const;
};

} // namespace qv
