#include "tests/bus/SysDOperations.h"

#include <ostream>

namespace {

// The lines as they stand in the journal
const std::string kCtrlCreate = "SysDDBusCtrl: Failed to create dbus message\n";
const std::string kCtrlAppend = "SysDDBusCtrl: Failed to append dbus msg\n";
const std::string kCreate = "SDBusSysD: Failed to create dbus message\n";
const std::string kAppend = "SDBusSysD: Failed to append dbus msg\n";
const std::string kNoParamCall = "SysDDBusCtrl: Failed to call methodNoParam\n";

std::string yes(bool value)
{
    return value ? "true" : "false";
}

using Run = std::function<void(SDBusSysD&)>;

std::function<std::string(SDBusSysD&)> without(Run run)
{
    return [run = std::move(run)](SDBusSysD& sysd) {
        run(sysd);
        return std::string();
    };
}

/// An operation of the older part, without a result.
tOperation control(std::string name, std::string member, std::string signature, std::string arguments, Run run,
                   std::string callLine)
{
    return {std::move(name),
            std::move(member),
            std::move(signature),
            std::move(arguments),
            without(std::move(run)),
            "",
            "",
            kCtrlCreate,
            kCtrlAppend,
            std::move(callLine),
            ""};
}

tOperation noParam(std::string name, std::string member, Run run)
{
    return {
        std::move(name), std::move(member), "", "", without(std::move(run)), "", "", kCtrlCreate, "", kNoParamCall, ""};
}

tOperation setter(std::string name, std::string member, std::string signature, std::string arguments, Run run,
                  std::string callLine)
{
    return {std::move(name),
            std::move(member),
            std::move(signature),
            std::move(arguments),
            without(std::move(run)),
            "",
            "",
            kCreate,
            kAppend,
            std::move(callLine),
            ""};
}

tOperation getter(std::string name, std::string member, std::string signature, std::string arguments,
                  std::function<std::string(SDBusSysD&)> run, std::string result, std::string failure,
                  const std::string& line)
{
    return {std::move(name),
            std::move(member),
            std::move(signature),
            std::move(arguments),
            std::move(run),
            std::move(result),
            std::move(failure),
            kCreate,
            kAppend,
            line,
            line};
}

tOperation getIpAddress()
{
    return {"getIpAddress",
            "GetNetIPv4Addr",
            "",
            "",
            [](SDBusSysD& sysd) {
                std::string address = "as it was";
                sysd.getIpAddress(address);
                return address;
            },
            "192.168.10.20",
            "as it was",
            kCreate,
            "",
            "SDBusSysD: Failed to getIpAddress\n",
            "SDBusSysD: Failed to getIpAddress\n"};
}

} // namespace

std::ostream& operator<<(std::ostream& out, const tOperation& operation)
{
    return out << operation.name;
}

const std::vector<tOperation>& sysDOperations()
{
    static const std::vector<tOperation> operations{
        control(
            "setTime", "SetUnixTime", "t", "18446744073709551615",
            [](SDBusSysD& s) { s.setTime(18446744073709551615ULL); }, "SysDDBusCtrl: Failed to call setTime\n"),
        control(
            "setTimeZone", "SetTimeZone", "ub", "2147483648, true",
            [](SDBusSysD& s) { s.setTimeZone(2147483648, true); }, "SysDDBusCtrl: Failed to call beep\n"),
        control(
            "setBrightness", "SetBrightness", "u", "255", [](SDBusSysD& s) { s.setBrightness(255); },
            "SysDDBusCtrl: Failed to call setBrightness\n"),
        control(
            "setBrightnessRaw", "SetBrightnessRaw", "u", "254", [](SDBusSysD& s) { s.setBrightnessRaw(254); },
            "SysDDBusCtrl: Failed to call setBrightnessRaw\n"),
        setter(
            "beepParam", "BeepParam", "uu", "4294967294, 3", [](SDBusSysD& s) { s.beep(4294967294, 3); },
            "SDBusSysD: Failed to call beep\n"),
        noParam("beep", "Beep", [](SDBusSysD& s) { s.beep(); }),
        getIpAddress(),
        getter(
            "getParamBool", "GetParamBool", "u", "92",
            [](SDBusSysD& s) { return yes(s.getParamBool(eParamShowLogos)); }, "true", "false",
            "SDBusSysD: Failed to get param: 92\n"),
        getter(
            "getParamInt", "GetParamInt", "u", "111",
            [](SDBusSysD& s) { return std::to_string(s.getParamInt(eParamTimeZone)); }, "-2147483648", "0",
            "SDBusSysD: Failed to get param: 111\n"),
        getter(
            "getParamString", "GetParamString", "u", "127",
            [](SDBusSysD& s) { return s.getParamString(eParamRegText127); }, "1.4.2", "",
            "SDBusSysD: Failed to get param: 127\n"),
        setter(
            "setParamBool", "SetParamBool", "ub", "86, true", [](SDBusSysD& s) { s.setParamBool(eParamVisu86, true); },
            "SDBusSysD: Failed to set param: 86\n"),
        setter(
            "setParamInt", "SetParamInt", "ui", "211, -1", [](SDBusSysD& s) { s.setParamInt(eParamStartCode, -1); },
            "SDBusSysD: Failed to set param: 211\n"),
        setter(
            "setParamString", "SetParamString", "us", "214, \"10.0.0.5\"",
            [](SDBusSysD& s) { s.setParamString(eParamQVIpAddr, "10.0.0.5"); },
            "SDBusSysD: Failed to set param: 214\n"),
        getter(
            "getCfgInt", "GetCfgInt", "s", "\"VorlanBaud\"",
            [](SDBusSysD& s) { return std::to_string(s.getCfgInt("VorlanBaud")); }, "115200", "0",
            "SDBusSysD: Failed to get cfg: VorlanBaud\n"),
        getter(
            "getCfgBool", "GetCfgBool", "s", "\"IsHypervisorSys\"",
            [](SDBusSysD& s) { return yes(s.getCfgBool("IsHypervisorSys")); }, "true", "false",
            "SDBusSysD: Failed to get cfg: IsHypervisorSys\n"),
        getter(
            "getCfgString", "GetCfgString", "s", "\"VorlanDev\"",
            [](SDBusSysD& s) { return s.getCfgString("VorlanDev"); }, "/dev/ttyS0", "",
            "SDBusSysD: Failed to get cfg: VorlanDev\n"),
        setter(
            "setCfgString", "SetCfgString", "ss", "\"VisuURL\", \"\"",
            [](SDBusSysD& s) { s.setCfgString("VisuURL", ""); }, "SDBusSysD: Failed to set cfg: VisuURL\n"),
        setter(
            "setCfgInt", "SetCfgInt", "si", "\"Startmode\", -7", [](SDBusSysD& s) { s.setCfgInt("Startmode", -7); },
            "SDBusSysD: Failed to set cfg: Startmode\n"),
        setter(
            "addCfgVar", "AddCfgVar", "s", "\"100%s%n\"", [](SDBusSysD& s) { s.addCfgVar("100%s%n"); },
            "SDBusSysD: Failed to add cfg var: 100%s%n\n"),
        noParam("emuInputEv", "EmulateInputEvent", [](SDBusSysD& s) { s.emuInputEv(); }),
        noParam("startUpdate", "SysUpdate", [](SDBusSysD& s) { s.startUpdate(); }),
        noParam("saveConfig", "SaveConfig", [](SDBusSysD& s) { s.saveConfig(); }),
        noParam("loadConfig", "LoadConfig", [](SDBusSysD& s) { s.loadConfig(); }),
        noParam("configureNet", "ConfigureNetwork", [](SDBusSysD& s) { s.configureNet(); }),
    };
    return operations;
}

void fillStores(sim::SysDaemon& sysd)
{
    sysd.setIpAddress("192.168.10.20");
    sysd.setParam(92, true);
    sysd.setParam(111, std::int32_t{-2147483647 - 1});
    sysd.setParam(127, "1.4.2");
    sysd.setParam(86, false);
    sysd.setParam(211, sim::SysDaemon::Value(0));
    sysd.setParam(214, "0.0.0.0");
    sysd.setCfg("VorlanBaud", 115200);
    sysd.setCfg("IsHypervisorSys", true);
    sysd.setCfg("VorlanDev", "/dev/ttyS0");
    sysd.setCfg("VisuURL", "http://localhost/");
    sysd.setCfg("Startmode", sim::SysDaemon::CfgValue(0));
}
