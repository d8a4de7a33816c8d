#pragma once

#include "sim/Timeline.h"

#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>

namespace sim {

/// Writes the timeline as it happens: a line for people, a line of JSON for programs.
class Show
{
public:
    /// What is written for people; colours only where a terminal shows them. Null: nothing.
    explicit Show(std::FILE* people);

    /// Each event as one JSON object on a line of its own, too. "-" is standard output. Throws std::runtime_error.
    void writeJson(const std::string& path);
    /// From now on there may be a prompt on the terminal's last line: it is overwritten.
    void overPrompt(bool on);

    void operator()(const tEvent& event, bool later);

    /// What the columns mean.
    static const char* legend();

private:
    void writeLine(const tEvent& event, bool later);
    std::string body(const tEvent& event, bool later) const;
    std::string paint(const char* colour, const std::string& text) const;

    std::FILE* mPeople;
    bool mColours;
    std::mutex mMutex; ///< guards mOverPrompt
    bool mOverPrompt = false;
    std::FILE* mJson = nullptr;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> mJsonFile{nullptr, std::fclose};
};

/// The line for people, without time and colours: "sysd <- GetParamInt(24)  = 90   orientation".
std::string sentence(const tEvent& event, bool later);

/// The event as one JSON object without a line feed. Bytes of a log line that are not UTF-8 become U+FFFD.
std::string toJson(const tEvent& event);

} // namespace sim
