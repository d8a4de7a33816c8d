#include "sim/Timeline.h"

#include "sim/MessageText.h"

#include <array>
#include <cstdio>
#include <utility>

namespace sim {

namespace {

bool isEqual(const std::optional<std::string>& wanted, const std::string& seen)
{
    return !wanted || *wanted == seen;
}

} // namespace

const char* name(ChannelE channel)
{
    switch (channel) {
    case ChannelE::eLine:
        return "line";
    case ChannelE::eSystemBus:
        return "system bus";
    case ChannelE::eUserBus:
        return "user bus";
    case ChannelE::eStdout:
        return "stdout";
    case ChannelE::eStderr:
        return "stderr";
    case ChannelE::eNote:
        return "note";
    }
    return "";
}

const char* name(KindE kind)
{
    switch (kind) {
    case KindE::eCall:
        return "call";
    case KindE::eSignal:
        return "signal";
    case KindE::eProperty:
        return "property";
    case KindE::eOwner:
        return "owner";
    case KindE::eText:
        return "text";
    case KindE::eFrame:
        return "frame";
    }
    return "";
}

std::string tEvent::call() const
{
    switch (kind) {
    case KindE::eCall:
    case KindE::eSignal:
    case KindE::eFrame:
        return service + "." + member + "(" + arguments + ")";
    case KindE::eProperty:
        return service + "." + member + " = " + arguments;
    case KindE::eOwner:
        return member + " " + arguments;
    case KindE::eText:
        return arguments;
    }
    return arguments;
}

bool Match::operator()(const tEvent& event) const
{
    return (!kind || *kind == event.kind) && (!channel || *channel == event.channel) &&
           isEqual(service, event.service) && isEqual(member, event.member) && isEqual(arguments, event.arguments) &&
           (!contains || event.arguments.find(*contains) != std::string::npos) &&
           (!answered || *answered == event.answer.has_value());
}

std::string Match::text() const
{
    std::string out = kind ? name(*kind) : "event";
    if (channel)
        out += std::string(" on ") + name(*channel);
    if (service || member)
        out += " " + service.value_or("*") + "." + member.value_or("*");
    if (arguments)
        out += " with exactly (" + *arguments + ")";
    if (contains)
        out += " containing (" + *contains + ")";
    if (answered)
        out += *answered ? " answered" : " unanswered";
    return out;
}

Match Match::to(std::string name) const
{
    Match out = *this;
    out.service = std::move(name);
    return out;
}

Match Match::on(ChannelE where) const
{
    Match out = *this;
    out.channel = where;
    return out;
}

Match Match::with(std::string text) const
{
    Match out = *this;
    out.arguments = std::move(text);
    return out;
}

Match Match::withPart(std::string part) const
{
    Match out = *this;
    out.contains = std::move(part);
    return out;
}

namespace match {

Match call(std::string member)
{
    Match out;
    out.kind = KindE::eCall;
    out.member = std::move(member);
    return out;
}

Match call(std::string member, std::string arguments)
{
    return call(std::move(member)).with(std::move(arguments));
}

Match signal(std::string member)
{
    Match out;
    out.kind = KindE::eSignal;
    out.member = std::move(member);
    return out;
}

Match property(std::string name)
{
    Match out;
    out.kind = KindE::eProperty;
    out.member = std::move(name);
    return out;
}

Match property(std::string name, std::string value)
{
    return property(std::move(name)).with(std::move(value));
}

Match log(std::string line)
{
    Match out;
    out.kind = KindE::eText;
    out.service = "vorlan";
    out.arguments = std::move(line);
    return out;
}

Match logWith(std::string part)
{
    Match out;
    out.kind = KindE::eText;
    out.service = "vorlan";
    out.contains = std::move(part);
    return out;
}

} // namespace match

Timeline::Timeline()
    : mBegin(Clock::now())
{}

std::size_t Timeline::add(tEvent event)
{
    const std::lock_guard lock(mMutex);
    event.id = mNextId++;
    event.time = Clock::now() - mBegin;
    mEvents.push_back(std::move(event));
    if (mListener)
        mListener(mEvents.back(), false);
    mChanged.notify_all();
    return mNextId - 1;
}

void Timeline::note(std::string text)
{
    tEvent event;
    event.arguments = std::move(text);
    add(std::move(event));
}

void Timeline::setAnswer(std::size_t id, std::string answer)
{
    const std::lock_guard lock(mMutex);
    for (tEvent& event : mEvents) {
        if (event.id != id)
            continue;
        event.answer = std::move(answer);
        if (mListener)
            mListener(event, true);
        mChanged.notify_all();
        return;
    }
}

void Timeline::listen(Listener listener)
{
    const std::lock_guard lock(mMutex);
    mListener = std::move(listener);
}

std::size_t Timeline::mark() const
{
    const std::lock_guard lock(mMutex);
    return mNextId;
}

void Timeline::clear()
{
    const std::lock_guard lock(mMutex);
    mEvents.clear();
}

std::vector<tEvent> Timeline::events(std::size_t from) const
{
    return select([](const tEvent&) { return true; }, from);
}

std::vector<tEvent> Timeline::select(const Predicate& predicate, std::size_t from) const
{
    const std::lock_guard lock(mMutex);
    std::vector<tEvent> out;
    for (const tEvent& event : mEvents)
        if (event.id >= from && predicate(event))
            out.push_back(event);
    return out;
}

std::size_t Timeline::count(const Predicate& predicate, std::size_t from) const
{
    return select(predicate, from).size();
}

std::optional<tEvent> Timeline::findLocked(const Predicate& predicate, std::size_t from) const
{
    for (const tEvent& event : mEvents)
        if (event.id >= from && predicate(event))
            return event;
    return std::nullopt;
}

std::optional<tEvent> Timeline::find(const Predicate& predicate, std::size_t from) const
{
    const std::lock_guard lock(mMutex);
    return findLocked(predicate, from);
}

std::optional<tEvent> Timeline::waitFor(const Predicate& predicate, std::size_t from, milliseconds deadline) const
{
    std::unique_lock lock(mMutex);
    std::optional<tEvent> found;
    const auto end = Clock::now() + deadline;
    mChanged.wait_until(lock, end, [&] {
        found = findLocked(predicate, from);
        return found.has_value();
    });
    return found;
}

bool Timeline::waitForCount(const Predicate& predicate, std::size_t wanted, std::size_t from,
                            milliseconds deadline) const
{
    std::unique_lock lock(mMutex);
    const auto end = Clock::now() + deadline;
    return mChanged.wait_until(lock, end, [&] {
        std::size_t seen = 0;
        for (const tEvent& event : mEvents)
            if (event.id >= from && predicate(event))
                ++seen;
        return seen >= wanted;
    });
}

std::string Timeline::missingInOrder(const std::vector<Match>& wanted, std::size_t from) const
{
    const std::lock_guard lock(mMutex);
    for (const Match& match : wanted) {
        const auto found = findLocked(match, from);
        if (!found)
            return match.text();
        from = found->id + 1;
    }
    return "";
}

std::string Timeline::text(std::size_t from) const
{
    std::string out;
    for (const tEvent& event : events(from))
        out += toText(event) + "\n";
    return out;
}

std::string toText(const tEvent& event)
{
    std::array<char, 48> head{};
    std::snprintf(head.data(), head.size(), "%9.3f  %-10s  ", std::chrono::duration<double>(event.time).count(),
                  name(event.channel));
    std::string out = head.data() + event.call();
    if (!event.detail.empty())
        out += "  [" + event.detail + "]";
    if (event.answer)
        out += "  -> " + (event.answer->empty() ? "ok" : *event.answer);
    else if (event.kind == KindE::eCall)
        out += "  ...";
    return out;
}

} // namespace sim
