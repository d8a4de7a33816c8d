#include "sim/Show.h"

#include "qv/Values.h"

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace sim {

namespace {

constexpr const char* kBold = "\033[1m";
constexpr const char* kDim = "\033[2m";
constexpr const char* kRed = "\033[31m";
constexpr const char* kGreen = "\033[32m";
constexpr const char* kYellow = "\033[33m";
constexpr const char* kBlue = "\033[34m";
constexpr const char* kMagenta = "\033[35m";
constexpr const char* kCyan = "\033[36m";

const char* colourOf(ChannelE channel)
{
    switch (channel) {
    case ChannelE::eLine:
        return kCyan;
    case ChannelE::eSystemBus:
        return kBlue;
    case ChannelE::eUserBus:
        return kMagenta;
    case ChannelE::eStderr:
        return kYellow;
    case ChannelE::eStdout:
    case ChannelE::eNote:
        return "";
    }
    return "";
}

/// "daemon -> sysd      "
std::string way(const std::string& from, const std::string& to)
{
    std::string out = from + " -> " + to;
    out.resize(std::max<std::size_t>(out.size(), 18), ' ');
    return out + "  ";
}

std::string callText(const tEvent& event, bool later)
{
    std::string out = event.service == "vorlan" ? way("desktop", "daemon") : way("daemon", event.service);
    out += event.member;
    out += "(" + event.arguments + ")";
    if (event.answer && !event.answer->empty())
        out += event.answer->starts_with("error ") ? "  " + *event.answer : "  = " + *event.answer;
    else if (!event.answer)
        out += "  (no answer yet)";
    if (later)
        out += "  (answered now)";
    return out;
}

const char* channelWord(ChannelE channel)
{
    if (channel == ChannelE::eStdout)
        return "log";
    return channel == ChannelE::eStderr ? "log stderr" : name(channel);
}

} // namespace

std::string sentence(const tEvent& event, bool later)
{
    switch (event.kind) {
    case KindE::eCall:
        return callText(event, later);
    case KindE::eSignal:
        return event.service == "vorlan"
                   ? way("daemon", "desktop") + "signal " + event.member
                   : way(event.service, "daemon") + "signal " + event.member + "(" + event.arguments + ")";
    case KindE::eProperty:
        return way("daemon", "desktop") + event.member + " is now " + event.arguments;
    case KindE::eOwner:
        return way("daemon", "desktop") + "the name " + event.member + " is " + event.arguments;
    case KindE::eFrame:
        return event.service == "qv"
                   ? way("QV", "daemon") + event.arguments + (event.member == "reset" ? "  (reset flag)" : "")
                   : way("daemon", "QV") + event.arguments;
    case KindE::eText:
        return qv::escapedText(event.arguments); // the log holds texts of QV as they came
    }
    return "";
}

std::string toJson(const tEvent& event)
{
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(event.time).count();
    std::string out = "{\"id\":" + std::to_string(event.id) + ",\"us\":" + std::to_string(micros) + ",\"channel\":\"" +
                      name(event.channel) + "\",\"kind\":\"" + name(event.kind) + "\"";
    const std::pair<const char*, const std::string&> fields[] = {{"service", event.service},
                                                                 {"member", event.member},
                                                                 {"signature", event.signature},
                                                                 {"arguments", event.arguments},
                                                                 {"detail", event.detail}};
    for (const auto& [key, value] : fields)
        if (!value.empty())
            out += std::string(",\"") + key + "\":" + qv::jsonString(value);
    if (event.answer)
        out += ",\"answer\":" + qv::jsonString(*event.answer);
    return out + "}";
}

Show::Show(std::FILE* people)
    : mPeople(people)
    , mColours(people != nullptr && isatty(fileno(people)) != 0 && std::getenv("NO_COLOR") == nullptr)
{}

void Show::writeJson(const std::string& path)
{
    if (path == "-") {
        mJson = stdout;
        return;
    }
    mJsonFile.reset(std::fopen(path.c_str(), "we"));
    mJson = mJsonFile.get();
    if (mJson == nullptr)
        throw std::runtime_error("cannot write " + path);
}

void Show::overPrompt(bool on)
{
    const std::lock_guard lock(mMutex);
    mOverPrompt = on;
}

std::string Show::paint(const char* colour, const std::string& text) const
{
    return mColours && *colour != '\0' && !text.empty() ? colour + text + "\033[0m" : text;
}

void Show::operator()(const tEvent& event, bool later)
{
    if (mPeople != nullptr)
        writeLine(event, later);
    if (mJson != nullptr) {
        std::fprintf(mJson, "%s\n", toJson(event).c_str());
        std::fflush(mJson);
    }
}

void Show::writeLine(const tEvent& event, bool later)
{
    const std::lock_guard lock(mMutex);
    if (mOverPrompt && isatty(fileno(mPeople)) != 0)
        std::fputs("\r\033[K", mPeople);
    std::fprintf(mPeople, "%s\n", body(event, later).c_str());
    std::fflush(mPeople);
}

std::string Show::body(const tEvent& event, bool later) const
{
    if (event.channel == ChannelE::eNote) {
        if (event.member == "step")
            return "\n" + paint(kBold, event.arguments);
        if (event.member == "seen")
            return std::string(23, ' ') + paint(kGreen, "ok: " + event.arguments);
        return paint(event.member == "failed" ? kRed : "", event.arguments);
    }
    std::array<char, 32> time{};
    std::snprintf(time.data(), time.size(), "%9.3f  ", std::chrono::duration<double>(event.time).count());
    std::string channel = channelWord(event.channel);
    channel.resize(10, ' ');
    const bool failed = event.answer && event.answer->starts_with("error ");
    std::string out = paint(kDim, time.data()) + paint(colourOf(event.channel), channel) + "  " +
                      paint(failed ? kRed : "", sentence(event, later));
    if (!event.detail.empty())
        out += "  " + paint(kDim, event.kind == KindE::eFrame ? "[" + event.detail + "]" : "# " + event.detail);
    return out;
}

const char* Show::legend()
{
    return "  line        what QV and the daemon say to each other on the serial line, and its bytes\n"
           "  system bus  what the daemon asks of the system daemon (sysd), and the answer\n"
           "  user bus    what it asks of the logo handler (logo), the idle application (idle) and systemd,\n"
           "              and what it tells the desktop\n"
           "  log         what it writes to its log\n";
}

} // namespace sim
