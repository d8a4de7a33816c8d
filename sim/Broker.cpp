#include "sim/Broker.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace sim {

namespace {

constexpr char kMachineId[] = "0123456789abcdef0123456789abcdef";
constexpr std::uint64_t kAnswerUs = 40'000'000;

// What may connect, own names, send and receive: for every user, for users and groups by number; then SELinux, AppArmor
// and the kind of bus.
#define VORLAN_BATCH "bta(btbs)a(btssssuutt)a(btssssuutt)"
constexpr char kPolicy[] = "(a(u(" VORLAN_BATCH "))a(buu(" VORLAN_BATCH "))a(ss)bs)";
#undef VORLAN_BATCH

UniqueFd listenAt(const std::string& path)
{
    UniqueFd out(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        throw std::runtime_error("too long a path: " + path);
    std::strcpy(address.sun_path, path.c_str());
    if (bind(out.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0 ||
        listen(out.get(), SOMAXCONN) < 0)
        throw std::runtime_error("cannot listen at " + path);
    return out;
}

/// One rule of each kind, of priority 1, that allows everything.
MessagePtr addListener(sd_bus* controller, int listener)
{
    constexpr std::uint64_t kPriority = 1;
    constexpr std::uint64_t kLeast = 0; // of descriptors in a message
    constexpr std::uint64_t kMost = UINT64_MAX;
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(controller, &raw, nullptr, "/org/bus1/DBus/Broker", "org.bus1.DBus.Broker",
                                       "AddListener") < 0)
        return nullptr;
    MessagePtr out(raw);
    const int result =
        sd_bus_message_append(raw, "ohv", "/org/bus1/DBus/Listener/0", listener, kPolicy,           //
                              1, UINT32_MAX, 1, kPriority,                                          // every user
                              1, 1, kPriority, 1, "",                                               // own
                              1, 1, kPriority, "", "", "", "", 0U, 0U, kLeast, kMost,               // send
                              1, 1, kPriority, "", "", "", "", 0U, 0U, kLeast, kMost, 0, 0, 0, ""); // receive
    return result < 0 ? nullptr : std::move(out);
}

} // namespace

tBroker startBroker(const std::string& socket, int log)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0)
        throw std::runtime_error("no pair of sockets");
    const UniqueFd theirs(ends[1]);
    Child::tSpawn spawn;
    spawn.argv = {"dbus-broker", "--controller", "3", "--machine-id", kMachineId};
    spawn.environment = environmentWithout({"LISTEN_FDS", "NOTIFY_SOCKET"});
    spawn.extra = theirs.get();
    spawn.err = log;
    tBroker out;
    out.child = Child::spawn(spawn);

    const UniqueFd listener = listenAt(socket);
    sd_bus* raw = nullptr;
    sd_bus_new(&raw);
    out.controller.reset(raw);
    sd_bus_set_fd(raw, ends[0], ends[0]); // it is the connection's from now on
    sd_bus_start(raw);
    const MessagePtr message = addListener(raw, listener.get());
    BusError error;
    if (!message || sd_bus_call(raw, message.get(), kAnswerUs, error.get(), nullptr) < 0)
        throw std::runtime_error("dbus-broker did not start (is it installed?) " + error.name());
    return out;
}

} // namespace sim
