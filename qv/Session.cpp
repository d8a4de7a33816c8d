#include "qv/Session.h"

#include "qv/Explain.h"
#include "qv/List.h"
#include "qv/Ping.h"
#include "qv/Trace.h"
#include "qv/Values.h"
#include "qv/Words.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <ostream>
#include <thread>

namespace qv {

namespace {

using namespace std::chrono_literals;

constexpr auto kPauseStep = 20ms; ///< how soon a stop is noticed
constexpr unsigned kPingCount = 100;
constexpr auto kWatchEvery = 1000ms;

std::string timeOfDay()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto seconds = static_cast<std::time_t>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(ms));
    return text;
}

/// A reading as a person sees it; registers beyond the table as bytes.
std::string valueText(const tRequest& request, ByteView data)
{
    return request.replyType ? formatValue(*request.replyType, data) : hexText(data);
}

std::string valueJson(const tRequest& request, ByteView data)
{
    return request.replyType ? jsonValue(*request.replyType, data) : jsonString(hexText(data));
}

/// {"request":"write qv-status 4", ... without its end
std::string jsonHead(const tRequest& request)
{
    return R"({"request":)" + jsonString(request.text) + R"(,"name":)" + jsonString(request.name) + R"(,"number":)" +
           std::to_string(request.number);
}

/// For programs.
const char* errorName(OutcomeE outcome)
{
    switch (outcome) {
    case OutcomeE::eDone:
        return "";
    case OutcomeE::eRefused:
        return "refused";
    case OutcomeE::eNoAnswer:
        return "no answer";
    case OutcomeE::eUnknown:
        return "unknown";
    case OutcomeE::eStopped:
        return "interrupted";
    case OutcomeE::eLineGone:
        return "line gone";
    case OutcomeE::eBadReply:
        return "bad reply";
    }
    return "";
}

int statusOf(const tResult& result)
{
    if (result.done()) {
        return eStatusDone;
    }
    return result.outcome == OutcomeE::eRefused ? eStatusRefused : eStatusNoAnswer;
}

/// Takes "--name N" out of the words.
std::int64_t takeOption(std::vector<std::string>& words, const char* name, std::int64_t otherwise, std::int64_t min,
                        std::int64_t max)
{
    const auto word = std::ranges::find(words, name);
    if (word == words.end()) {
        return otherwise;
    }
    if (word + 1 == words.end()) {
        throw RequestError(std::string(name) + " needs a number");
    }
    try {
        const auto value = parseNumber(*(word + 1), min, max);
        words.erase(word, word + 2);
        return value;
    } catch (const ValueError& error) {
        throw RequestError(std::string(name) + ": " + error.what());
    }
}

void needWords(std::span<const std::string> words, std::size_t min, std::size_t max)
{
    if (words.size() < min) {
        throw RequestError("a name is missing");
    }
    if (words.size() > max) {
        throw RequestError("'" + words[max] + "' is one word too many");
    }
}

/// The commands that a boot file may hold.
std::string bootCommands()
{
    std::string names;
    for (const auto& command : Session::commands()) {
        if (command.name != std::string_view("boot")) {
            names += (names.empty() ? "" : ", ") + std::string(command.name);
        }
    }
    return names;
}

constexpr auto kMany = std::numeric_limits<std::size_t>::max();

} // namespace

Session::Session(Peer& peer, std::ostream& out, std::ostream& err, const tSessionOptions& options)
    : mPeer(peer)
    , mOut(out)
    , mErr(err)
    , mOptions(options)
{
    mPeer.setStop(&mStop);
}

Session::~Session()
{
    mPeer.setStop(nullptr);
}

void Session::setTrace(bool on)
{
    mPeer.setTrace(on ? Peer::TraceFn(FrameTrace(mErr)) : Peer::TraceFn());
}

int Session::misunderstood(const std::string& words, const std::string& what)
{
    if (mOptions.json) {
        mOut << R"({"request":)" << jsonString(words) << R"(,"error":"usage","mayBeDone":false,"message":)"
             << jsonString(mWhere + what) << "}\n";
        mOut.flush();
    }
    mErr << mWhere << what << '\n';
    return eStatusUsage;
}

int Session::report(const tRequest& request, const tResult& result)
{
    const bool refused = result.outcome == OutcomeE::eRefused;
    if (mOptions.json) {
        mOut << jsonHead(request) << R"(,"error":")" << errorName(result.outcome) << R"(","mayBeDone":)"
             << (result.mayBeDone ? "true" : "false") << "}\n";
        mOut.flush();
    }
    if (refused) {
        mErr << request.text << ": refused by the device (error bit set); nothing was done.\n"
             << "  It refuses what it does not know, a value of the wrong length, and an empty text where one is "
                "needed; 'list' shows what it takes.\n";
    } else {
        mErr << request.text << ": " << explainNoAnswer(request, result, mPeer.options()) << '\n';
    }
    mErr.flush();
    return statusOf(result);
}

tResult Session::ask(const tRequest& request)
{
    if (mOptions.connect) {
        mOptions.connect();
    }
    auto result = mPeer.request(request.message, request.safeToRepeat);
    if (result.done() && request.replyType && !isValue(*request.replyType, result.data)) {
        result.outcome = OutcomeE::eBadReply;
    }
    return result;
}

void Session::showReading(const tRequest& request, ByteView data, std::size_t width)
{
    if (mOptions.json) {
        mOut << jsonHead(request) << R"(,"value":)" << valueJson(request, data) << "}\n";
    } else if (mOptions.quiet) {
        mOut << valueText(request, data) << '\n';
    } else {
        mOut << request.name << std::string(std::max(width, request.name.size()) - request.name.size() + 2, ' ')
             << valueText(request, data) << '\n';
    }
    mOut.flush();
}

int Session::read(std::span<const std::string> names)
{
    std::vector<tRequest> requests;
    std::size_t width = 0;
    for (const auto& name : names) {
        requests.push_back(readRequest(name));
        width = std::max(width, requests.back().name.size());
    }
    if (mChecking) {
        return eStatusDone;
    }
    for (const auto& request : requests) {
        const auto result = ask(request);
        if (!result.done()) {
            return report(request, result);
        }
        showReading(request, result.data, width);
    }
    return eStatusDone;
}

int Session::finish(const tRequest& request)
{
    if (mChecking) {
        return eStatusDone;
    }
    const auto result = ask(request);
    if (!result.done()) {
        return report(request, result);
    }
    if (mOptions.json) {
        mOut << jsonHead(request) << R"(,"done":true})" << '\n';
    } else if (!mOptions.quiet && !mInBoot) {
        mOut << "done\n";
    }
    mOut.flush();
    return eStatusDone;
}

int Session::write(const std::string& name, const std::string& value)
{
    return finish(writeRequest(name, value));
}

int Session::call(const std::string& name, std::span<const std::string> args)
{
    return finish(callRequest(name, args));
}

int Session::boot(const std::string& fileName)
{
    if (mInBoot) {
        throw RequestError("a boot file cannot play another one");
    }
    const auto lines = readLines(fileName);
    mInBoot = true;
    mChecking = true;
    auto status = playLines(fileName, lines);
    mChecking = false;
    if (status == eStatusDone) {
        if (mOptions.connect) {
            mOptions.connect(); // before the first line is shown
        }
        status = playLines(fileName, lines);
    } else {
        mErr << fileName << ": nothing was sent\n";
    }
    mInBoot = false;
    mWhere.clear();
    return status;
}

int Session::playLines(const std::string& fileName, std::span<const std::string> lines)
{
    int status = eStatusDone;
    unsigned number = 0;
    for (const auto& line : lines) {
        ++number;
        const auto first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#') {
            continue;
        }
        mWhere = fileName + ":" + std::to_string(number) + ": ";
        if (mChecking) { // every mistake is told
            status = std::max(status, runLine(line));
            continue;
        }
        if (!mOptions.quiet && !mOptions.json) {
            mOut << line << '\n';
            mOut.flush();
        }
        status = runLine(line);
        if (mStop) { // a watch or ping has ended well, but the rest is not done
            status = eStatusNoAnswer;
            mErr << mWhere << "interrupted\n";
        } else if (status != eStatusDone) {
            mErr << mWhere << "stopped here\n";
        }
        if (status != eStatusDone) {
            break;
        }
    }
    return status;
}

void Session::pauseUntil(Clock::time_point when) const
{
    while (!mStop && Clock::now() < when) {
        std::this_thread::sleep_until(std::min<Clock::time_point>(when, Clock::now() + kPauseStep));
    }
}

int Session::watch(const std::string& name, std::chrono::milliseconds every, unsigned count)
{
    const auto request = readRequest(name);
    if (mChecking) {
        return eStatusDone;
    }
    int status = eStatusDone;
    std::optional<std::string> shown;
    for (unsigned i = 0; mOut && (count == 0 || i < count); ++i) {
        const auto next = Clock::now() + every;
        const auto result = ask(request);
        const bool stopped = result.outcome == OutcomeE::eStopped;
        if (result.outcome == OutcomeE::eLineGone || (stopped && !shown)) {
            return report(request, result);
        }
        if (stopped) {
            break;
        }
        const auto text =
            result.done() ? valueText(request, result.data) : std::string("(") + errorName(result.outcome) + ")";
        if (text != shown) {
            shown = text;
            if (!result.done()) {
                report(request, result);
            } else {
                if (!mOptions.json && !mOptions.quiet) {
                    mOut << timeOfDay() << "  ";
                }
                showReading(request, result.data, 0);
            }
        }
        status = statusOf(result);
        if (count == 0 || i + 1 < count) {
            pauseUntil(next);
        }
    }
    return status;
}

int Session::ping(unsigned count)
{
    const auto request = readRequest("const-0");
    if (mChecking) {
        return eStatusDone;
    }
    tPingReport pings;
    while (pings.sent < count) {
        const auto result = ask(request);
        if (result.outcome == OutcomeE::eLineGone || (!result.done() && pings.times.empty())) {
            return report(request, result);
        }
        if (result.outcome == OutcomeE::eStopped) {
            break;
        }
        ++pings.sent;
        pings.repeats += result.counts.repeats;
        if (result.done()) {
            pings.times.push_back(result.roundTrip);
        }
    }
    if (mOptions.json) {
        pings.writeJson(mOut);
    } else {
        pings.writeText(mOut, !mOptions.quiet);
    }
    mOut.flush();
    return pings.times.size() == pings.sent ? eStatusDone : eStatusNoAnswer;
}

int Session::readWords(Words& words)
{
    return read(words);
}

int Session::writeWords(Words& words)
{
    return write(words[0], words[1]);
}

int Session::callWords(Words& words)
{
    return call(words[0], std::span(words).subspan(1));
}

int Session::networkWords(Words& words)
{
    return finish(networkRequest(words));
}

int Session::bootWords(Words& words)
{
    return boot(words[0]);
}

int Session::watchWords(Words& words)
{
    const auto every = takeOption(words, "--every", kWatchEvery.count(), 0, std::numeric_limits<int>::max());
    const auto count = takeOption(words, "--count", 0, 0, std::numeric_limits<unsigned>::max());
    needWords(words, 1, 1);
    return watch(words[0], std::chrono::milliseconds(every), static_cast<unsigned>(count));
}

int Session::pingWords(Words& words)
{
    const auto count = takeOption(words, "--count", kPingCount, 1, std::numeric_limits<unsigned>::max());
    needWords(words, 0, 0);
    return ping(static_cast<unsigned>(count));
}

int Session::listWords(Words&)
{
    if (!mChecking) {
        writeList(mOut, mOptions.json);
    }
    return eStatusDone;
}

int Session::traceWords(Words& words)
{
    const bool on = parseValue(wire::ValueE::eBool, words[0])[0] != 0;
    if (!mChecking) {
        setTrace(on);
    }
    return eStatusDone;
}

std::span<const tCommand> Session::commands()
{
    static constexpr tCommand kCommands[] = {
        {"read", "NAME...", "read registers", 1, kMany, &Session::readWords},
        {"write", "NAME VALUE", "write a register", 2, 2, &Session::writeWords},
        {"call", "NAME [ARGUMENT...]", "call a method; arguments in order or as name=value", 1, kMany,
         &Session::callWords},
        {"network", "[name=value...] [@FILE]", "set up a network interface (method 12)", 0, kMany,
         &Session::networkWords},
        {"boot", "FILE", "play a start-up: the commands of a file", 1, 1, &Session::bootWords},
        {"watch", "NAME [--every MS] [--count N]", "read again and again, show each change", 1, kMany,
         &Session::watchWords},
        {"ping", "[--count N]", "measure round trips", 0, 2, &Session::pingWords},
        {"list", "", "all registers and methods", 0, 0, &Session::listWords},
        {"trace", "on|off", "show each frame", 1, 1, &Session::traceWords},
    };
    return kCommands;
}

int Session::run(std::span<const std::string> words)
try {
    if (words.empty()) {
        return eStatusDone;
    }
    const auto command = std::ranges::find_if(commands(), [&](const tCommand& c) { return words[0] == c.name; });
    if (command == commands().end()) {
        throw RequestError("there is no command '" + words[0] + "'; " +
                           (mInBoot ? "there are " + bootCommands() : "'help' shows all"));
    }
    Words rest(words.begin() + 1, words.end());
    if (rest.size() < command->minWords || rest.size() > command->maxWords) {
        throw RequestError(std::string("usage: ") + command->name + " " + command->usage);
    }
    return (this->*command->run)(rest);
} catch (const std::invalid_argument& error) {
    std::string typed;
    for (const auto& word : words) {
        typed += (typed.empty() ? "" : " ") + quotedWord(word);
    }
    return misunderstood(typed, error.what());
}

int Session::runLine(const std::string& line)
{
    std::vector<std::string> words;
    try {
        words = splitWords(line);
    } catch (const RequestError& error) {
        return misunderstood(line, error.what());
    }
    return run(words);
}

} // namespace qv
