#include "sim/PrivateBus.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace sim {

namespace {

constexpr const char* kHead = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
)";
constexpr const char* kOpen = R"(    <allow own="*"/>
    <allow send_type="method_call"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">128000000</limit>
  <limit name="max_completed_connections">10000</limit>
  <limit name="max_incomplete_connections">1000</limit>
  <limit name="max_connections_per_user">10000</limit>
  <limit name="max_names_per_connection">10000</limit>
  <limit name="max_match_rules_per_connection">10000</limit>
  <limit name="max_replies_per_connection">50000</limit>
)";
/// The limits are dbus-daemon's own. The last policy is for the user of the stand-in and of the daemon; what the daemon
/// may send is what its package allows it.
constexpr const char* kStock = R"(    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Introspectable"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Properties"/>
  </policy>
  <policy user="@UID@">
    <allow own="com.kelvora.sysdaemon"/>
    <allow send_destination="com.kelvora.sysdaemon" send_interface="com.kelvora.sysdaemon"/>
    <allow send_destination="com.kelvora.sysdaemon" send_interface="org.freedesktop.DBus.Properties" send_member="Get"/>
  </policy>
)";

std::string configuration(BusKindE kind, const std::string& address)
{
    std::string policy = kind == BusKindE::eStock ? kStock : kOpen;
    constexpr std::string_view kUser = "@UID@";
    if (const auto at = policy.find(kUser); at != std::string::npos)
        policy.replace(at, kUser.size(), std::to_string(geteuid()));
    return kHead + policy + "  <listen>" + address + "</listen>\n</busconfig>\n";
}

} // namespace

PrivateBus::PrivateBus(const std::string& folder, const std::string& name)
    : mSocket(folder + "/" + name)
    , mConfig(folder + "/" + name + ".conf")
    , mAddress("unix:path=" + mSocket)
{}

PrivateBus::~PrivateBus()
{
    stop();
}

void PrivateBus::start()
{
    if (running())
        return;
    unlink(mSocket.c_str());
    const UniqueFd log(open((mSocket + ".log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (mKind != BusKindE::eBroker)
        return startDaemon(log.get());
    tBroker broker = startBroker(mSocket, log.get());
    mController = std::move(broker.controller);
    mDaemon = std::move(broker.child);
}

void PrivateBus::startDaemon(int log)
{
    std::ofstream config(mConfig);
    config << configuration(mKind, mAddress);
    if (!config.flush())
        throw std::runtime_error("cannot write " + mConfig);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0)
        throw std::runtime_error("no pipe");
    const UniqueFd ours(ends[0]);
    UniqueFd theirs(ends[1]);
    Child::tSpawn spawn;
    spawn.argv = {"dbus-daemon", "--nofork", "--nopidfile", "--print-address=3", "--config-file=" + mConfig};
    spawn.environment =
        environmentWithout({"DBUS_SYSTEM_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS", "LISTEN_FDS", "NOTIFY_SOCKET"});
    spawn.extra = theirs.get();
    spawn.err = log;
    mDaemon = Child::spawn(spawn);
    theirs.reset();

    // the address is printed once connections are accepted
    pollfd poller{ours.get(), POLLIN, 0};
    char byte = 0;
    if (poll(&poller, 1, static_cast<int>(kDeadline.count())) <= 0 || read(ours.get(), &byte, 1) != 1) {
        mDaemon.kill();
        std::ostringstream said;
        said << std::ifstream(mSocket + ".log").rdbuf();
        throw std::runtime_error("dbus-daemon did not start (is it installed?) " + said.str());
    }
}

void PrivateBus::stop()
{
    mDaemon.kill();
    mController.reset();
}

BusPtr openBus(const std::string& address)
{
    sd_bus* raw = nullptr;
    if (sd_bus_new(&raw) < 0)
        return nullptr;
    BusPtr bus(raw);
    if (sd_bus_set_address(raw, address.c_str()) < 0 || sd_bus_set_bus_client(raw, 1) < 0 || sd_bus_start(raw) < 0)
        return nullptr;
    return bus;
}

} // namespace sim
