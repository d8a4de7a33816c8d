#include "sim/Service.h"

#include "sim/MessageText.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace sim {

namespace {

/// No answer to these messages is ever expected, so that they may all bear the same number.
constexpr std::uint64_t kCookie = 1;
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

int appendWrongType(sd_bus_message* reply, const std::string& rightType)
{
    if (rightType == "s" || rightType == "o")
        return sd_bus_message_append(reply, "u", 7U);
    return sd_bus_message_append(reply, "s", "not what you asked for");
}

std::string errorText(const sd_bus_error* error)
{
    return std::string("error ") + error->name;
}

int unused(sd_bus_message*, void*, sd_bus_error*)
{
    return 0;
}

int readForIntrospection(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*)
{
    return sd_bus_message_append(reply, "b", 1);
}

} // namespace

tBehaviour tBehaviour::error(std::string errorName)
{
    tBehaviour out;
    out.mode = eError;
    out.errorName = std::move(errorName);
    return out;
}

tBehaviour tBehaviour::silent()
{
    tBehaviour out;
    out.mode = eSilent;
    return out;
}

tBehaviour tBehaviour::delayed(milliseconds delay)
{
    tBehaviour out;
    out.mode = eDelay;
    out.delay = delay;
    return out;
}

tBehaviour tBehaviour::wrongType()
{
    tBehaviour out;
    out.mode = eWrongType;
    return out;
}

tBehaviour tBehaviour::empty()
{
    tBehaviour out;
    out.mode = eEmpty;
    return out;
}

tBehaviour tBehaviour::crash(milliseconds backAfter)
{
    tBehaviour out;
    out.mode = eCrash;
    out.delay = backAfter;
    return out;
}

tBehaviour tBehaviour::held()
{
    tBehaviour out;
    out.mode = eHeld;
    return out;
}

tBehaviour tBehaviour::times(unsigned calls) const
{
    tBehaviour out = *this;
    out.limit = calls;
    return out;
}

Service::Service(EventLoop& loop, Timeline& timeline, const PrivateBus& bus, tNames names)
    : mLoop(loop)
    , mTimeline(timeline)
    , mBusDaemon(bus)
    , mNames(std::move(names))
    , mAlive(std::make_shared<bool>(true))
{}

Service::~Service() = default;

void Service::setMembers(std::vector<tMember> members)
{
    mMembers = std::move(members);
    mTable.push_back(SD_BUS_VTABLE_START(0));
    for (const tMember& member : mMembers) {
        if (member.property)
            mTable.push_back(SD_BUS_PROPERTY(member.name, member.out, readForIntrospection, 0, 0));
        else
            mTable.push_back(SD_BUS_METHOD(member.name, member.in, member.out, unused, SD_BUS_VTABLE_UNPRIVILEGED));
    }
    mTable.push_back(SD_BUS_VTABLE_END);
}

std::vector<std::string> Service::memberNames() const
{
    std::vector<std::string> out;
    for (const tMember& member : mMembers)
        out.emplace_back(member.name);
    return out;
}

std::vector<Service::tShape> Service::memberShapes() const
{
    std::vector<tShape> out;
    for (const tMember& member : mMembers)
        out.push_back({member.name, member.in, member.out});
    return out;
}

void Service::shutDown()
{
    mLoop.call([this] {
        *mAlive = false;
        disconnect();
    });
}

std::string Service::detail(const std::string&, sd_bus_message*) const
{
    return "";
}

void Service::setBehaviour(const std::string& member, const tBehaviour& behaviour)
{
    mLoop.call([&] { mBehaviours[member] = behaviour; });
}

void Service::clearBehaviour()
{
    mLoop.call([this] { mBehaviours.clear(); });
}

void Service::release()
{
    mLoop.call([this] {
        for (const auto& answerOne : std::exchange(mHeld, {}))
            answerOne();
    });
}

bool Service::present() const
{
    return mLoop.call([this] { return mPresent && mBus != nullptr; });
}

void Service::goAway()
{
    mLoop.call([this] {
        mWanted = false;
        if (mBus != nullptr)
            sd_bus_release_name(mBus.get(), mNames.busName.c_str());
        mPresent = false;
    });
}

void Service::crash()
{
    mLoop.call([this] {
        mWanted = false;
        disconnect();
    });
}

void Service::comeBack()
{
    mLoop.call([this] { connect(); });
}

void Service::busIsLost()
{
    mLoop.call([this] { disconnect(); });
}

void Service::busIsBack()
{
    mLoop.call([this] {
        if (mWanted)
            connect();
    });
}

void Service::late(milliseconds delay)
{
    goAway();
    mLoop.call([&] { after(delay, [this] { connect(); }); });
}

void Service::connect()
{
    mWanted = true;
    if (mBus != nullptr && sd_bus_is_open(mBus.get()) <= 0)
        disconnect();
    if (mBus == nullptr) {
        mBus = openBus(mBusDaemon.address());
        if (mBus == nullptr || sd_bus_attach_event(mBus.get(), mLoop.event(), 0) < 0) {
            mBus.reset();
            return;
        }
        addObject();
    }
    const int result = sd_bus_request_name(mBus.get(), mNames.busName.c_str(), 0);
    mPresent = result >= 0 || result == -EALREADY;
}

void Service::addObject()
{
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_object_vtable(mBus.get(), &slot, mNames.path.c_str(), mNames.interface.c_str(), mTable.data(),
                                 this) >= 0)
        mVtable.reset(slot);
    // runs before the table above, which therefore only answers what is not handled here
    if (sd_bus_add_object(mBus.get(), &slot, mNames.path.c_str(), onMessage, this) >= 0)
        mObject.reset(slot);
}

void Service::disconnect()
{
    mPresent = false;
    mHeld.clear();
    mObject.reset();
    mVtable.reset();
    mBus.reset();
}

void Service::after(milliseconds delay, std::function<void()> function)
{
    mLoop.after(delay, [alive = mAlive, function = std::move(function)] {
        if (*alive)
            function();
    });
}

void Service::record(KindE kind, const std::string& member, const std::string& signature, const std::string& arguments)
{
    tEvent event;
    event.channel = mNames.channel;
    event.kind = kind;
    event.service = mNames.shortName;
    event.member = member;
    event.signature = signature;
    event.arguments = arguments;
    mTimeline.add(std::move(event));
}

int Service::onMessage(sd_bus_message* message, void* userData, sd_bus_error*) noexcept
{
    return static_cast<Service*>(userData)->handle(message);
}

const Service::tMember* Service::findMember(sd_bus_message* message) const
{
    const char* interface = sd_bus_message_get_interface(message);
    std::string name = sd_bus_message_get_member(message);
    bool property = false;
    if (interface != nullptr && std::strcmp(interface, kProperties) == 0) {
        const char* itsInterface = nullptr;
        const char* itsName = nullptr;
        if (name != "Get" || sd_bus_message_read(message, "ss", &itsInterface, &itsName) <= 0)
            return nullptr;
        property = mNames.interface == itsInterface;
        name = itsName;
        sd_bus_message_rewind(message, 1);
    } else if (interface != nullptr && mNames.interface != interface) {
        return nullptr;
    }
    for (const tMember& member : mMembers)
        if (member.property == property && name == member.name)
            return &member;
    return nullptr;
}

tBehaviour Service::takeBehaviour(const std::string& member)
{
    auto found = mBehaviours.find(member);
    if (found == mBehaviours.end())
        found = mBehaviours.find("*");
    if (found == mBehaviours.end())
        return {};
    tBehaviour out = found->second;
    if (found->second.limit > 0 && --found->second.limit == 0)
        mBehaviours.erase(found);
    return out;
}

tEvent Service::describe(const std::string& member, sd_bus_message* message, bool property) const
{
    tEvent event;
    event.channel = mNames.channel;
    event.kind = KindE::eCall;
    event.service = mNames.shortName;
    event.member = member;
    if (!property) {
        event.signature = sd_bus_message_get_signature(message, 1);
        event.arguments = bodyText(message);
        event.detail = detail(member, message);
        sd_bus_message_rewind(message, 1);
    }
    return event;
}

int Service::handle(sd_bus_message* message)
{
    std::uint8_t type = 0;
    if (sd_bus_message_get_type(message, &type) < 0 || type != SD_BUS_MESSAGE_METHOD_CALL)
        return 0;
    const tMember* member = findMember(message);
    if (member == nullptr) {
        // the bus library answers: an error, or one of the interfaces that every object has
        const char* interface = sd_bus_message_get_interface(message);
        if (interface == nullptr || mNames.interface == interface) {
            tEvent event = describe(sd_bus_message_get_member(message), message, false);
            event.answer = "error " SD_BUS_ERROR_UNKNOWN_METHOD;
            mTimeline.add(std::move(event));
        }
        return 0;
    }
    handleMember(*member, Request(sd_bus_message_ref(message), sd_bus_message_unref),
                 describe(member->name, message, member->property));
    return 1;
}

void Service::handleMember(const tMember& member, const Request& request, tEvent event)
{
    const tBehaviour behaviour = takeBehaviour(member.name);
    const auto addAnswered = [&](const std::string& text) {
        event.answer = text;
        mTimeline.add(event);
    };
    if (!member.property && event.signature != member.in) {
        addAnswered("error " SD_BUS_ERROR_INVALID_ARGS);
        sd_bus_reply_method_errorf(request.get(), SD_BUS_ERROR_INVALID_ARGS, "expected '%s'", member.in);
        return;
    }
    switch (behaviour.mode) {
    case tBehaviour::eSilent:
        mTimeline.add(event);
        return;
    case tBehaviour::eCrash:
        mTimeline.add(event);
        mLoop.post([this, alive = mAlive, delay = behaviour.delay] {
            if (!*alive)
                return;
            disconnect();
            after(delay, [this] { connect(); });
        });
        return;
    case tBehaviour::eError:
        addAnswered("error " + behaviour.errorName);
        sd_bus_reply_method_errorf(request.get(), behaviour.errorName.c_str(), "%s", "told to fail");
        return;
    case tBehaviour::eDelay:
    case tBehaviour::eHeld: {
        const std::size_t id = mTimeline.add(event);
        const auto answerLater = [this, &member, request, id] {
            answer(member, request, tBehaviour::eNormal,
                   [this, id](std::string text) { mTimeline.setAnswer(id, std::move(text)); });
        };
        if (behaviour.mode == tBehaviour::eHeld)
            mHeld.emplace_back(answerLater);
        else
            after(behaviour.delay, answerLater);
        return;
    }
    case tBehaviour::eNormal:
    case tBehaviour::eWrongType:
    case tBehaviour::eEmpty:
        answer(member, request, behaviour.mode, addAnswered);
        return;
    }
}

void Service::answer(const tMember& member, const Request& request, tBehaviour::ModeE mode,
                     const std::function<void(std::string)>& tell)
{
    BusError error;
    const MessagePtr reply = makeReply(member, request.get(), mode, error);
    if (error.isSet() || reply == nullptr) {
        tell(error.isSet() ? errorText(error.get()) : "error " SD_BUS_ERROR_FAILED);
        sd_bus_reply_method_error(request.get(), error.isSet() ? error.get() : nullptr);
        return;
    }
    sd_bus_message_seal(reply.get(), kCookie, 0);
    tell(bodyText(reply.get()));
    if (sd_bus_message_get_expect_reply(request.get()) > 0)
        sd_bus_send(nullptr, reply.get(), nullptr);
}

MessagePtr Service::makeReply(const tMember& member, sd_bus_message* request, tBehaviour::ModeE mode, BusError& error)
{
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_return(request, &raw) < 0)
        return nullptr;
    MessagePtr reply(raw);
    if (mode == tBehaviour::eEmpty)
        return reply;
    std::string type = member.out;
    if (member.property) {
        if (mode == tBehaviour::eWrongType)
            type = type == "s" ? "u" : "s";
        sd_bus_message_open_container(raw, 'v', type.c_str());
    }
    const int result =
        mode == tBehaviour::eWrongType ? appendWrongType(raw, member.out) : member.handler(request, raw, error.get());
    if (member.property)
        sd_bus_message_close_container(raw);
    if (result < 0 && !error.isSet())
        sd_bus_error_set_errno(error.get(), result);
    return reply;
}

} // namespace sim
