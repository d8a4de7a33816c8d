#include "dbus/SDBusSysD.h"
#include "os/Log.h"

#include <string_view>
#include <variant>
#include <vector>

namespace {

/// One entry of the dictionary: its value is a text or a flag.
struct tEntry
{
    const char* key;
    std::variant<const char*, bool> value;
};

std::vector<tEntry> entriesOf(const NetConf& conf)
{
    std::vector<tEntry> entries{{"Mode", conf.mode.c_str()}};
    entries.reserve(11);
    if (conf.mode != "DhcpClient" && conf.mode != "DHCPClient") {
        entries.push_back({"IpAddress", conf.ipAddress.c_str()});
        entries.push_back({"Netmask", conf.netmask.c_str()});
        entries.push_back({"Gateway", conf.gateway.c_str()});
    }
    entries.push_back({"Hostname", conf.hostname.c_str()});
    entries.push_back({"DnsDomain", conf.dnsDomain.c_str()});
    if (conf.isDnsActivated()) {
        entries.push_back({"DnsActivated", true});
        entries.push_back({"DnsFromDhcp", conf.dnsMode == 1});
    }
    if (conf.dnsMode == 0) {
        const tEntry servers[] = {{"DnsServer0", conf.dnsServer0.c_str()},
                                  {"DnsServer1", conf.dnsServer1.c_str()},
                                  {"DnsServer2", conf.dnsServer2.c_str()}};
        for (const tEntry& server : servers) {
            if (*std::get<const char*>(server.value) != '\0')
                entries.push_back(server);
        }
    }
    return entries;
}

void log(std::string_view words, std::string_view what = "")
{
    logErr({"SysDDBusCtrl: ", words, what});
}

/// False, with a line, at the first step that fails.
bool appendEntry(sd_bus_message* message, const tEntry& entry)
{
    if (sd_bus_message_open_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv") < 0) {
        log("Failed to open SD_BUS_TYPE_DICT_ENTRY container: ", entry.key);
        return false;
    }
    if (sd_bus_message_append(message, "s", entry.key) < 0) {
        log("Failed to append dbus message: ", entry.key);
        return false;
    }
    const bool* flag = std::get_if<bool>(&entry.value);
    const char* text = flag != nullptr ? "" : std::get<const char*>(entry.value);
    if ((flag != nullptr ? sd_bus_message_append(message, "v", "b", int{*flag})
                         : sd_bus_message_append(message, "v", "s", text)) < 0) {
        log("Failed to append dbus message: ", text);
        return false;
    }
    if (sd_bus_message_close_container(message) < 0) {
        log("Failed to close SD_BUS_TYPE_DICT_ENTRY container: ", entry.key);
        return false;
    }
    return true;
}

} // namespace

void SDBusSysD::configureNetIf(const std::string& interface, const NetConf& conf)
{
    constexpr char kCallFailed[] = "Failed to call configureNetIf";
    const std::lock_guard lock(mMutex);
    renewBus();
    const MessagePtr message = newSysDCall("ConfigureNetIf");
    if (!message)
        return log("Failed to create dbus message");
    if (sd_bus_message_append(message.get(), "s", interface.c_str()) < 0)
        return log("Failed to append dbus message: Interface");
    if (sd_bus_message_open_container(message.get(), SD_BUS_TYPE_ARRAY, "{sv}") < 0)
        return log(kCallFailed);
    for (const tEntry& entry : entriesOf(conf)) {
        if (!appendEntry(message.get(), entry))
            break; // the entry stays open, so that closing the array fails as well and nothing is sent
    }
    if (sd_bus_message_close_container(message.get()) < 0) {
        log("Failed to close SD_BUS_TYPE_ARRAY container");
        return log(kCallFailed);
    }
    if (callAndWait(message.get()) < 0)
        log(kCallFailed);
}
