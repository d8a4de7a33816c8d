#include "qv/Ping.h"

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <string>

namespace qv {

namespace {

constexpr std::size_t kBars = 10;
constexpr std::size_t kBarWidth = 50;

double milliseconds(std::chrono::nanoseconds time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

/// Equal steps from the smallest to the largest time.
void writeHistogram(std::ostream& out, const std::vector<std::chrono::nanoseconds>& sorted)
{
    const auto step = (sorted.back() - sorted.front()) / kBars + std::chrono::nanoseconds(1);
    std::vector<std::size_t> counts(kBars);
    for (const auto time : sorted) {
        ++counts[static_cast<std::size_t>((time - sorted.front()) / step)];
    }
    const auto most = *std::ranges::max_element(counts);
    for (std::size_t i = 0; i < kBars; ++i) {
        const auto from = sorted.front() + static_cast<std::int64_t>(i) * step;
        const auto width = (counts[i] * kBarWidth + most - 1) / most; // what was counted is seen, however little
        char text[64];
        std::snprintf(text, sizeof text, "%9.3f ms %6zu ", milliseconds(from), counts[i]);
        out << text << std::string(width, '#') << '\n';
    }
}

} // namespace

std::chrono::nanoseconds tPingReport::percentile(unsigned percent) const
{
    auto sorted = times;
    const auto rank = std::max<std::size_t>(1, (sorted.size() * percent + 99) / 100);
    const auto place = sorted.begin() + static_cast<std::ptrdiff_t>(rank - 1);
    std::ranges::nth_element(sorted, place);
    return *place;
}

void tPingReport::writeText(std::ostream& out, bool withHistogram) const
{
    out << sent << " requests, " << times.size() << " answered, " << repeats << " repeats\n";
    if (times.empty()) {
        return;
    }
    char text[160];
    std::snprintf(text, sizeof text, "minimum %.3f ms, median %.3f ms, 99th percentile %.3f ms, maximum %.3f ms\n",
                  milliseconds(percentile(0)), milliseconds(percentile(50)), milliseconds(percentile(99)),
                  milliseconds(percentile(100)));
    out << text;
    if (withHistogram && times.size() > 1) {
        auto sorted = times;
        std::ranges::sort(sorted);
        writeHistogram(out, sorted);
    }
}

void tPingReport::writeJson(std::ostream& out) const
{
    out << R"({"request":"ping","sent":)" << sent << R"(,"answered":)" << times.size() << R"(,"repeats":)" << repeats;
    if (!times.empty()) {
        char text[160];
        std::snprintf(text, sizeof text, R"(,"minMs":%.6f,"medianMs":%.6f,"p99Ms":%.6f,"maxMs":%.6f)",
                      milliseconds(percentile(0)), milliseconds(percentile(50)), milliseconds(percentile(99)),
                      milliseconds(percentile(100)));
        out << text;
    }
    out << "}\n";
}

} // namespace qv
