#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace sim {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// How long a wait lasts when the caller names no deadline: long enough for a machine that stands still for a while.
inline constexpr milliseconds kDeadline{40000};

enum class ChannelE
{
    eLine,
    eSystemBus,
    eUserBus,
    eStdout,
    eStderr,
    eNote
};

enum class KindE
{
    eCall,     ///< a call that a stand-in received; a property read carries the property's name as its member
    eSignal,   ///< a signal on a bus, sent by a stand-in or seen by the desktop
    eProperty, ///< the desktop saw a property change: member is its name, arguments its value
    eOwner,    ///< the desktop saw the owner of a bus name change: member is the name, arguments "present" or "absent"
    eText,     ///< a line of the daemon's log, or a note: arguments holds it as it is
    eFrame,    ///< a request or a reply on the line
};

/// One thing that happened on the device.
struct tEvent
{
    std::size_t id = 0;     ///< counts up from 0 and is never used again, also after clear()
    Clock::duration time{}; ///< since the timeline began
    ChannelE channel = ChannelE::eNote;
    KindE kind = KindE::eText;
    std::string service;               ///< "sysd", "idle", "logo", "systemd", "vorlan", "qv", or empty
    std::string member;                ///< call, signal, property
    std::string signature;             ///< D-Bus types of the arguments
    std::string arguments;             ///< as text: 24, "VisuURL", true, {"Mode": "static"}
    std::string detail;                ///< names for numbers, for people only
    std::optional<std::string> answer; ///< as text; empty text for an empty answer, nothing while there is none

    /// "sysd.SetParamInt(211, 0)"
    std::string call() const;
};

/// What an event is compared with: each field that is set must be equal.
struct Match
{
    std::optional<KindE> kind;
    std::optional<ChannelE> channel;
    std::optional<std::string> service;
    std::optional<std::string> member;
    std::optional<std::string> arguments;
    std::optional<std::string> contains; ///< a part of the arguments
    std::optional<bool> answered;

    bool operator()(const tEvent& event) const;
    /// For messages: what was expected.
    std::string text() const;

    Match to(std::string name) const;       ///< the same, of this service
    Match on(ChannelE where) const;         ///< the same, on this channel
    Match with(std::string text) const;     ///< the same, with exactly these arguments
    Match withPart(std::string part) const; ///< the same, with arguments that contain this
};

namespace match {
Match call(std::string member);
Match call(std::string member, std::string arguments);
Match signal(std::string member);
Match property(std::string name);
Match property(std::string name, std::string value);
Match log(std::string line);     ///< a whole line of stdout or stderr
Match logWith(std::string part); ///< a line of stdout or stderr that contains this
} // namespace match

/// What happened, in order. Any thread may add and ask at any time; an event that a stand-in records is in before the
/// stand-in answers, so what the daemon does next comes after it.
class Timeline
{
public:
    using Predicate = std::function<bool(const tEvent&)>;
    /// Called for each event as it is added, and again (later = true) when its answer comes afterwards.
    /// It must not call the timeline.
    using Listener = std::function<void(const tEvent&, bool later)>;

    Timeline();

    /// Sets id and time of the event and keeps it; gives the id.
    std::size_t add(tEvent event);
    void note(std::string text);
    /// The answer of a call that was added without one. Unknown ids are ignored.
    void setAnswer(std::size_t id, std::string answer);
    void listen(Listener listener);

    /// The id that the next event will have: a position to wait or to count from.
    std::size_t mark() const;
    /// Forgets all events; ids go on.
    void clear();

    std::vector<tEvent> events(std::size_t from = 0) const;
    std::vector<tEvent> select(const Predicate& predicate, std::size_t from = 0) const;
    std::size_t count(const Predicate& predicate, std::size_t from = 0) const;
    /// The first match at or after the position.
    std::optional<tEvent> find(const Predicate& predicate, std::size_t from = 0) const;
    /// The first match at or after the position, waiting until it comes; nothing at the deadline.
    std::optional<tEvent> waitFor(const Predicate& predicate, std::size_t from = 0,
                                  milliseconds deadline = kDeadline) const;
    /// Waits until there are so many matches.
    bool waitForCount(const Predicate& predicate, std::size_t wanted, std::size_t from = 0,
                      milliseconds deadline = kDeadline) const;
    /// Empty when the events were seen one after the other (others may lie between them), else the text of the first
    /// one that was missed.
    std::string missingInOrder(const std::vector<Match>& wanted, std::size_t from = 0) const;

    /// All events as text, a line for each: for messages of failed tests.
    std::string text(std::size_t from = 0) const;

private:
    std::optional<tEvent> findLocked(const Predicate& predicate, std::size_t from) const;

    const Clock::time_point mBegin;
    mutable std::mutex mMutex;
    mutable std::condition_variable mChanged;
    std::vector<tEvent> mEvents;
    std::size_t mNextId = 0;
    Listener mListener;
};

const char* name(ChannelE channel);
const char* name(KindE kind);
/// "  1.234  system bus  sysd.SetParamInt(211, 0)  -> ok"
std::string toText(const tEvent& event);

} // namespace sim
