#pragma once

#include <cstdint>
#include <string>

/// The settings of one network interface.
struct NetConf
{
    std::string mode; ///< "DhcpClient" or "DHCPClient": by DHCP; any other text: static
    std::string ipAddress;
    std::string netmask;
    std::string gateway;
    std::string hostname;
    std::string dnsDomain;
    std::uint8_t dnsMode = 0; ///< 0: the servers below; 1: servers from DHCP; anything else: no DNS settings
    std::string dnsServer0;   ///< empty when not set, as the two others
    std::string dnsServer1;
    std::string dnsServer2;

    bool hasDnsServer() const { return !dnsServer0.empty() || !dnsServer1.empty() || !dnsServer2.empty(); }
    bool isDnsActivated() const { return dnsMode == 1 || (dnsMode == 0 && hasDnsServer()); }
};
