#include "sim/Desktop.h"

#include "sim/MessageText.h"

#include <cstring>
#include <utility>

namespace sim {

namespace {

constexpr const char* kName = "com.kelvora.vorlan";
constexpr const char* kPath = "/com/kelvora/vorlan";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

MessagePtr newCall(sd_bus* bus, const char* interface, const char* member)
{
    sd_bus_message* raw = nullptr;
    if (bus != nullptr)
        sd_bus_message_new_method_call(bus, &raw, kName, kPath, interface, member);
    return MessagePtr(raw);
}

std::uint64_t micros(milliseconds time)
{
    return static_cast<std::uint64_t>(std::chrono::microseconds(time).count());
}

MessagePtr ask(sd_bus* bus, sd_bus_message* call, milliseconds deadline, Desktop::tResult& result)
{
    if (call == nullptr) {
        result.errorName = SD_BUS_ERROR_DISCONNECTED;
        return nullptr;
    }
    BusError error;
    sd_bus_message* raw = nullptr;
    if (sd_bus_call(bus, call, micros(deadline), error.get(), &raw) < 0) {
        result.errorName = error.name();
        result.errorText = error.text();
        return nullptr;
    }
    result.ok = true;
    return MessagePtr(raw);
}

void readAnswer(sd_bus_message* reply, Desktop::tResult& result)
{
    if (reply == nullptr)
        return;
    const char* contents = nullptr;
    char type = 0;
    if (sd_bus_message_peek_type(reply, &type, &contents) > 0 && type == 'v')
        result.signature = contents;
    else
        result.signature = sd_bus_message_get_signature(reply, 1);
    result.value = bodyText(reply);
    result.raw = result.value;
    if (result.signature != "s")
        return;
    const char* text = nullptr;
    if (sd_bus_message_read(reply, type == 'v' ? "v" : "s", type == 'v' ? "s" : reinterpret_cast<const char*>(&text),
                            &text) > 0)
        result.raw = text;
}

} // namespace

Desktop::Desktop(EventLoop& loop, Timeline& timeline, const PrivateBus& bus)
    : mLoop(loop)
    , mTimeline(timeline)
    , mBusDaemon(bus)
{
    listen();
}

Desktop::~Desktop()
{
    mLoop.call([this] { mBus.reset(); });
}

void Desktop::listen()
{
    mLoop.call([this] {
        mBus = openBus(mBusDaemon.address());
        if (mBus == nullptr)
            return;
        for (const char* rule :
             {"type='signal',path='/com/kelvora/vorlan'",
              "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='com.kelvora.vorlan'"})
            sd_bus_add_match(mBus.get(), nullptr, rule, onSignal, this);
        sd_bus_attach_event(mBus.get(), mLoop.event(), 0);
    });
}

int Desktop::onSignal(sd_bus_message* message, void* userData, sd_bus_error*) noexcept
{
    static_cast<Desktop*>(userData)->heard(message);
    return 0;
}

void Desktop::add(KindE kind, std::string member, std::string signature, std::string arguments)
{
    tEvent event;
    event.channel = ChannelE::eUserBus;
    event.kind = kind;
    event.service = "vorlan";
    event.member = std::move(member);
    event.signature = std::move(signature);
    event.arguments = std::move(arguments);
    mTimeline.add(std::move(event));
}

void Desktop::heard(sd_bus_message* message)
{
    const std::string member = sd_bus_message_get_member(message);
    if (member == "NameOwnerChanged") {
        const char* name = nullptr;
        const char* before = nullptr;
        const char* now = nullptr;
        if (sd_bus_message_read(message, "sss", &name, &before, &now) > 0)
            add(KindE::eOwner, name, "", *now == '\0' ? "absent" : "present");
        return;
    }
    const char* interface = nullptr;
    if (member != "PropertiesChanged" || sd_bus_message_read(message, "s", &interface) <= 0) {
        sd_bus_message_rewind(message, 1);
        add(KindE::eSignal, member, sd_bus_message_get_signature(message, 1), bodyText(message));
        return;
    }
    sd_bus_message_enter_container(message, 'a', "{sv}");
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
        const char* property = "";
        const char* type = "";
        sd_bus_message_read(message, "s", &property);
        sd_bus_message_peek_type(message, nullptr, &type);
        const std::string signature = type;
        add(KindE::eProperty, property, signature, valueText(message));
        sd_bus_message_exit_container(message);
    }
    sd_bus_message_exit_container(message);
    sd_bus_message_enter_container(message, 'a', "s");
    for (const char* property = nullptr; sd_bus_message_read(message, "s", &property) > 0;)
        add(KindE::eProperty, property, "", "(invalidated)");
}

BusPtr Desktop::open() const
{
    return openBus(mBusDaemon.address());
}

Desktop::tResult Desktop::property(const std::string& name, milliseconds deadline) const
{
    const BusPtr bus = open();
    const MessagePtr call = newCall(bus.get(), kProperties, "Get");
    if (call != nullptr)
        sd_bus_message_append(call.get(), "ss", kName, name.c_str());
    tResult result;
    const MessagePtr reply = ask(bus.get(), call.get(), deadline, result);
    readAnswer(reply.get(), result);
    return result;
}

std::map<std::string, std::string> Desktop::allProperties(milliseconds deadline) const
{
    const BusPtr bus = open();
    const MessagePtr call = newCall(bus.get(), kProperties, "GetAll");
    if (call != nullptr)
        sd_bus_message_append(call.get(), "s", kName);
    tResult result;
    const MessagePtr reply = ask(bus.get(), call.get(), deadline, result);
    std::map<std::string, std::string> out;
    if (reply == nullptr || sd_bus_message_enter_container(reply.get(), 'a', "{sv}") <= 0)
        return out;
    while (sd_bus_message_enter_container(reply.get(), 'e', "sv") > 0) {
        const char* name = "";
        sd_bus_message_read(reply.get(), "s", &name);
        const std::string key = name;
        out[key] = valueText(reply.get());
        sd_bus_message_exit_container(reply.get());
    }
    return out;
}

Desktop::tResult Desktop::setProperty(const std::string& name, const std::string& text, milliseconds deadline) const
{
    const BusPtr bus = open();
    const MessagePtr call = newCall(bus.get(), kProperties, "Set");
    if (call != nullptr)
        sd_bus_message_append(call.get(), "ssv", kName, name.c_str(), "s", text.c_str());
    tResult result;
    ask(bus.get(), call.get(), deadline, result);
    return result;
}

Desktop::tResult Desktop::introspect(milliseconds deadline) const
{
    return call("org.freedesktop.DBus.Introspectable", "Introspect", deadline);
}

Desktop::tResult Desktop::showQmx(milliseconds deadline) const
{
    return call(kName, "ShowQMX", deadline);
}

Desktop::tResult Desktop::call(const std::string& interface, const std::string& member, milliseconds deadline) const
{
    const BusPtr bus = open();
    const MessagePtr call = newCall(bus.get(), interface.c_str(), member.c_str());
    tResult result;
    const MessagePtr reply = ask(bus.get(), call.get(), deadline, result);
    readAnswer(reply.get(), result);
    return result;
}

bool Desktop::waitForName(milliseconds deadline) const
{
    const BusPtr bus = open();
    sd_bus_slot* slot = nullptr;
    if (bus == nullptr || sd_bus_add_match(
                              bus.get(), &slot,
                              "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',"
                              "arg0='com.kelvora.vorlan'",
                              [](sd_bus_message*, void*, sd_bus_error*) noexcept { return 0; }, nullptr) < 0)
        return false;
    const SlotPtr owned(slot);
    const auto end = Clock::now() + deadline;
    while (sd_bus_get_name_creds(bus.get(), kName, 0, nullptr) < 0) {
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        if (left <= milliseconds{0} || sd_bus_wait(bus.get(), micros(left)) < 0)
            return false;
        while (sd_bus_process(bus.get(), nullptr) > 0) {
        }
    }
    return true;
}

bool Desktop::waitForService(milliseconds deadline) const
{
    const auto end = Clock::now() + deadline;
    if (!waitForName(deadline))
        return false;
    const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
    return left > milliseconds{0} && call("org.freedesktop.DBus.Peer", "Ping", left).ok;
}

} // namespace sim
