#pragma once

#include <cstdint>

/// Identifiers of the system daemon's numbered parameter store; the gaps are the store's. The word behind each is the
/// type by which this daemon accesses it.
enum ParamE : std::uint32_t
{
    eParamVisuMode = 0,        ///< int: 1 remote desktop, 2 web browser, 3 none
    eParamNetHostname = 1,     ///< string
    eParamNetMode = 2,         ///< string: "DHCPClient" or a static mode
    eParamNetIpAddress = 3,    ///< string
    eParamNetNetmask = 4,      ///< string
    eParamNetGateway = 5,      ///< string
    eParamNetDnsActivated = 6, ///< bool
    eParamNetDnsDomain = 7,    ///< string
    eParamNetDnsMode = 8,      ///< int: as NetConf::dnsMode
    eParamNetDnsServer0 = 9,   ///< string
    eParamNetDnsServer1 = 10,  ///< string
    eParamNetDnsServer2 = 11,  ///< string
    eParamOrientation = 24,    ///< int: degrees
    eParamGifOffsetX = 25,     ///< int
    eParamGifOffsetY = 26,     ///< int
    eParamGifDelayMS = 27,     ///< int: milliseconds between frames
    eParamUpdateMode = 61,     ///< int: 3 when QV triggered the update
    eParamUpdatePath = 66,     ///< string
    eParamVncServer = 80,      ///< string: remote-desktop address
    eParamVisu86 = 86,         ///< bool: remote-desktop flag
    eParamWebUrl = 90,         ///< string: web address of the visualisation
    eParamShowLogos = 92,      ///< bool
    eParamTimeZone = 111,      ///< int: index
    eParamTimeZoneFlag = 112,  ///< bool: goes with the index
    eParamRegText127 = 127,    ///< string
    eParamReg172 = 172,        ///< int
    eParamReg180 = 180,        ///< int
    eParamReg181 = 181,        ///< int
    eParamListB = 190,         ///< int: the byte behind list B
    eParamListBCount = 191,    ///< int: entries of list B; entry i is parameter 192 + i
    eParamListACount = 200,    ///< int: entries of list A; entry i is parameter 201 + i
    eParamShowQVStatus = 210,  ///< bool
    eParamStartCode = 211,     ///< int: consumed once per start
    eParamQVIpAddr = 214,      ///< string
};
