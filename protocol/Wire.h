#pragma once

#include <cstdint>
#include <span>

/// The numbers and names of the request protocol between QV and the daemon: commands, registers, methods and the
/// shape of their values. Both ends of the line use this one table; neither end's codec is in it.
/// Every number of more than one byte is little-endian; every text ends with a zero byte.
namespace wire {

/// Bits 0 to 3 of a request's first byte; bits 4 to 7 of a request are ignored.
enum CommandE : std::uint8_t
{
    eCmdReadReg = 0,
    eCmdWriteReg = 1,
    eCmdCall = 2
};

inline constexpr std::uint8_t kCommandMask = 0x0F;
/// Bit 7 of a reply's first byte: the request was refused.
inline constexpr std::uint8_t kErrorBit = 0x80;

enum RegRdE : std::uint8_t
{
    eRegRdConst0 = 0,
    eRegRdCfgApplied = 1,
    eRegRdIpAddr = 2,
    eRegRdParamText = 3,
    eRegRdHundredthsList = 4,
    eRegRdByteList = 5,
    eRegRdParamWordA = 6,
    eRegRdParamWordB = 7,
    eRegRdStartCode = 8,
    eRegRdDispBrightnessRaw = 9,
};

enum RegWrE : std::uint8_t
{
    eRegWrQVProtVersion = 0,
    eRegWrQVStatus = 1,
    eRegWrQVIpAddr = 2,
    eRegWrQVText1 = 3,
    eRegWrQVText2 = 4,
    eRegWrTimeZone = 5,
    eRegWrTimeZoneFlag = 6,
};

enum MethodE : std::uint8_t
{
    eMethodSetTime = 0,
    eMethodSetCfgStr = 1,
    eMethodSetCfgLong = 2,
    eMethodApplyConfig = 3,
    eMethodStartUpdate = 4,
    eMethodEmuInputEv = 5,
    eMethodSetBrightness = 6,
    eMethodSetBrightnessRaw = 7,
    eMethodBeepParam = 8,
    eMethodBeep = 9,
    eMethodClearStartCode = 10,
    eMethodAppTriggeredUpdate = 11,
    eMethodSetNetworkCfg = 12,
};

/// The status value with which QV says that it runs; its first arrival may start the visualisation.
inline constexpr std::uint8_t kStatusRunning = 4;

/// How a value lies in the message.
enum class ValueE : std::uint8_t
{
    eBool,           ///< 1 byte: 0 false, anything else true
    eU8,             ///< 1 byte, unsigned
    eI8,             ///< 1 byte, signed
    eU16,            ///< 2 bytes, unsigned
    eI32,            ///< 4 bytes, signed
    eU32,            ///< 4 bytes, unsigned
    eTime,           ///< 8 bytes: seconds since 1970-01-01 00:00 UTC
    eText,           ///< bytes and a zero byte
    eHundredthsList, ///< 2 bytes, signed, for each element; the device divides its values by 100
    eByteList,       ///< 1 byte, unsigned, for each element, then one trailing byte of its own meaning
    eDnsMode,        ///< 1 byte: 0 the servers given, 1 from DHCP, anything else no DNS settings
};

struct tField
{
    const char* name;
    ValueE type;
    const char* unit; ///< "" where the number has none
    const char* meaning;
};

struct tRegister
{
    std::uint8_t address;
    const char* enumerator;
    tField value; ///< value.name is the name by which people call the register
};

struct tMethod
{
    std::uint8_t id;
    const char* name;
    const char* meaning;
    std::span<const tField> args;
};

inline constexpr tRegister kReadRegisters[] = {
    {eRegRdConst0, "eRegRdConst0", {"const-0", ValueE::eU8, "", "always 0: a harmless read"}},
    {eRegRdCfgApplied,
     "eRegRdCfgApplied",
     {"cfg-applied", ValueE::eBool, "", "the visualisation settings were applied"}},
    {eRegRdIpAddr, "eRegRdIpAddr", {"ip-addr", ValueE::eText, "", "the device's IPv4 address"}},
    {eRegRdParamText, "eRegRdParamText", {"param-text", ValueE::eText, "", "parameter 127"}},
    {eRegRdHundredthsList,
     "eRegRdHundredthsList",
     {"hundredths-list", ValueE::eHundredthsList, "",
      "parameters 201 and up, divided by 100; as many as parameter 200 says"}},
    {eRegRdByteList,
     "eRegRdByteList",
     {"byte-list", ValueE::eByteList, "", "parameters 192 and up, as many as parameter 191 says, then parameter 190"}},
    {eRegRdParamWordA, "eRegRdParamWordA", {"param-word-a", ValueE::eU16, "", "the low 16 bits of parameter 180"}},
    {eRegRdParamWordB, "eRegRdParamWordB", {"param-word-b", ValueE::eU16, "", "the low 16 bits of parameter 181"}},
    {eRegRdStartCode,
     "eRegRdStartCode",
     {"start-code", ValueE::eI8, "", "why the device started; clear-start-code sets it to 0"}},
    {eRegRdDispBrightnessRaw,
     "eRegRdDispBrightnessRaw",
     {"brightness-raw", ValueE::eU8, "", "the raw brightness of the display (parameter 172)"}},
};

inline constexpr tRegister kWriteRegisters[] = {
    {eRegWrQVProtVersion, "eRegWrQVProtVersion", {"qv-prot-version", ValueE::eU8, "", "QV's protocol version"}},
    {eRegWrQVStatus, "eRegWrQVStatus", {"qv-status", ValueE::eU8, "", "QV's status; 4 is running"}},
    {eRegWrQVIpAddr, "eRegWrQVIpAddr", {"qv-ip-addr", ValueE::eText, "", "QV's IPv4 address; 0.0.0.0 is ignored"}},
    {eRegWrQVText1, "eRegWrQVText1", {"qv-text-1", ValueE::eText, "", "a text of QV that is only stored"}},
    {eRegWrQVText2, "eRegWrQVText2", {"qv-text-2", ValueE::eText, "", "a second text of QV that is only stored"}},
    {eRegWrTimeZone, "eRegWrTimeZone", {"time-zone", ValueE::eU32, "", "the system daemon's number of the time zone"}},
    {eRegWrTimeZoneFlag,
     "eRegWrTimeZoneFlag",
     {"time-zone-flag", ValueE::eBool, "", "the boolean that goes with the time zone"}},
};

namespace args {
inline constexpr tField kSetTime[] = {
    {"time", ValueE::eTime, "s", "the time to set; the device uses the low 32 bits, as signed"}};
inline constexpr tField kSetCfgStr[] = {{"key", ValueE::eText, "", "name of the configuration value, not empty"},
                                        {"value", ValueE::eText, "", "the text, may be empty"}};
inline constexpr tField kSetCfgLong[] = {{"key", ValueE::eText, "", "name of the configuration value, not empty"},
                                         {"value", ValueE::eI32, "", "the number"}};
inline constexpr tField kSetBrightness[] = {{"brightness", ValueE::eU8, "", "the brightness of the display"}};
inline constexpr tField kSetBrightnessRaw[] = {{"brightness", ValueE::eU8, "", "the raw brightness of the display"}};
inline constexpr tField kBeepParam[] = {{"first", ValueE::eU16, "", "first beep parameter"},
                                        {"second", ValueE::eU16, "", "second beep parameter"}};
inline constexpr tField kAppTriggeredUpdate[] = {{"path", ValueE::eText, "", "where the update lies, not empty"}};
inline constexpr tField kSetNetworkCfg[] = {
    {"interface", ValueE::eText, "", "the interface to set up"},
    {"mode", ValueE::eText, "", "DhcpClient or DHCPClient: by DHCP; any other text: static"},
    {"ip-address", ValueE::eText, "", "static IPv4 address"},
    {"netmask", ValueE::eText, "", "static netmask"},
    {"gateway", ValueE::eText, "", "static default gateway"},
    {"hostname", ValueE::eText, "", "host name"},
    {"dns-domain", ValueE::eText, "", "DNS search domain"},
    {"dns-mode", ValueE::eDnsMode, "", "where the DNS servers come from"},
    {"dns-server-0", ValueE::eText, "", "first DNS server"},
    {"dns-server-1", ValueE::eText, "", "second DNS server"},
    {"dns-server-2", ValueE::eText, "", "third DNS server"},
};
} // namespace args

inline constexpr tMethod kMethods[] = {
    {eMethodSetTime, "set-time", "set the device's clock", args::kSetTime},
    {eMethodSetCfgStr, "set-cfg-str", "set a configuration text", args::kSetCfgStr},
    {eMethodSetCfgLong, "set-cfg-long", "set a configuration number", args::kSetCfgLong},
    {eMethodApplyConfig, "apply-config", "all settings are sent: start the visualisation, or apply them anew", {}},
    {eMethodStartUpdate, "start-update", "start the system update; the daemon ends after its reply", {}},
    {eMethodEmuInputEv, "emu-input-ev", "emulate an input event", {}},
    {eMethodSetBrightness, "set-brightness", "set the brightness", args::kSetBrightness},
    {eMethodSetBrightnessRaw, "set-brightness-raw", "set the raw brightness", args::kSetBrightnessRaw},
    {eMethodBeepParam, "beep-param", "beep with two parameters", args::kBeepParam},
    {eMethodBeep, "beep", "beep", {}},
    {eMethodClearStartCode, "clear-start-code", "acknowledge the start code: it reads 0 from now on", {}},
    {eMethodAppTriggeredUpdate, "app-triggered-update", "save path and mode of an update and start it",
     args::kAppTriggeredUpdate},
    {eMethodSetNetworkCfg, "set-network-cfg", "set up a network interface; ignored before apply-config",
     args::kSetNetworkCfg},
};

} // namespace wire
