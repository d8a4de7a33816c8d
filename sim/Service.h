#pragma once

#include "sim/EventLoop.h"
#include "sim/PrivateBus.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace sim {

/// How a stand-in meets a call.
struct tBehaviour
{
    enum ModeE
    {
        eNormal,
        eError,     ///< answers with an error
        eSilent,    ///< never answers
        eDelay,     ///< does its work and answers after a while
        eWrongType, ///< answers with a value of another type
        eEmpty,     ///< answers without a value
        eCrash,     ///< its connection closes before the answer; comes back after a while
        eHeld,      ///< answers, and does its work, when release() is called
    };

    ModeE mode = eNormal;
    std::string errorName = "com.kelvora.Error.Simulated";
    milliseconds delay{0}; ///< eDelay: until the answer; eCrash: until it is back
    unsigned limit = 0;    ///< for the next so many calls, then normal again; 0: until it is changed

    static tBehaviour normal() { return {}; }
    static tBehaviour error(std::string errorName = "com.kelvora.Error.Simulated");
    static tBehaviour silent();
    static tBehaviour delayed(milliseconds delay);
    static tBehaviour wrongType();
    static tBehaviour empty();
    static tBehaviour crash(milliseconds backAfter = milliseconds{100});
    static tBehaviour held();
    tBehaviour times(unsigned calls) const;
};

/// A stand-in: one object under one name, on a connection of its own that lives on the loop's thread. Every call that
/// it receives is one event of the timeline. All public operations may be called from any thread and have taken effect
/// when they return.
class Service
{
public:
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    virtual ~Service();

    /// The short name in the timeline and in faults: "sysd".
    const std::string& shortName() const { return mNames.shortName; }
    const std::string& busName() const { return mNames.busName; }

    /// Methods and properties.
    std::vector<std::string> memberNames() const;
    /// Name and D-Bus types of arguments and answer, of each.
    struct tShape
    {
        std::string name;
        std::string in;
        std::string out;
    };
    std::vector<tShape> memberShapes() const;
    /// member "*" stands for every member that has no behaviour of its own. A property goes by its name.
    void setBehaviour(const std::string& member, const tBehaviour& behaviour);
    void clearBehaviour();
    /// Answers the calls that were held, in their order. What held them goes on holding the next ones.
    void release();

    /// Owns its name on the bus.
    bool present() const;
    /// Gives its name up: further calls meet an unknown service; calls in flight are still answered.
    void goAway();
    /// Closes its connection: calls in flight get the bus's NoReply error.
    void crash();
    /// Present again, with a fresh connection when the old one is lost. Nothing happens while the bus is down.
    void comeBack();
    /// The bus was stopped: absent, like every other.
    void busIsLost();
    /// The bus was restarted: present again if it was so before.
    void busIsBack();
    /// Absent from now on, present after the time.
    void late(milliseconds delay);

protected:
    struct tNames
    {
        std::string shortName;
        ChannelE channel;
        std::string busName;
        std::string path;
        std::string interface;
    };

    /// Reads the request, appends to the reply. Negative, or with the error set: the call is answered by an error.
    using Handler = std::function<int(sd_bus_message* request, sd_bus_message* reply, sd_bus_error* error)>;

    struct tMember
    {
        const char* name;
        const char* in;
        const char* out;
        Handler handler;
        bool property = false;
    };

    Service(EventLoop& loop, Timeline& timeline, const PrivateBus& bus, tNames names);

    /// To be called once by the constructor of the derived class, before comeBack().
    void setMembers(std::vector<tMember> members);
    /// To be called by the destructor of the derived class: no handler runs afterwards.
    void shutDown();
    /// Names for the numbers of a call, for people.
    virtual std::string detail(const std::string& member, sd_bus_message* request) const;

    // On the loop's thread only:
    sd_bus* bus() const { return mBus.get(); }
    void record(KindE kind, const std::string& member, const std::string& signature, const std::string& arguments);
    /// Runs the function after the time unless the stand-in is gone by then.
    void after(milliseconds delay, std::function<void()> function);

    EventLoop& mLoop;
    Timeline& mTimeline;

private:
    static int onMessage(sd_bus_message* message, void* userData, sd_bus_error* error) noexcept;

    using Request = std::shared_ptr<sd_bus_message>;

    int handle(sd_bus_message* message);
    void handleMember(const tMember& member, const Request& request, tEvent event);
    void answer(const tMember& member, const Request& request, tBehaviour::ModeE mode,
                const std::function<void(std::string)>& tell);
    MessagePtr makeReply(const tMember& member, sd_bus_message* request, tBehaviour::ModeE mode, BusError& error);
    const tMember* findMember(sd_bus_message* message) const;
    tBehaviour takeBehaviour(const std::string& member);
    tEvent describe(const std::string& member, sd_bus_message* message, bool property) const;
    void connect();
    void disconnect();
    void addObject();

    const PrivateBus& mBusDaemon;
    const tNames mNames;
    std::vector<tMember> mMembers;
    std::vector<sd_bus_vtable> mTable; ///< for introspection only
    std::map<std::string, tBehaviour> mBehaviours;
    std::vector<std::function<void()>> mHeld; ///< answer the calls held
    std::shared_ptr<bool> mAlive;             ///< false once it has shut down
    bool mPresent = false;
    bool mWanted = false; ///< to be present when the bus is
    BusPtr mBus;
    SlotPtr mObject;
    SlotPtr mVtable;
};

} // namespace sim
