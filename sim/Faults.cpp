#include "sim/Faults.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

namespace sim {

namespace {

[[noreturn]] void refuse(const std::string& what)
{
    throw std::invalid_argument(what);
}

unsigned number(const std::string& text)
{
    unsigned out = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        refuse("'" + text + "' is no number");
    return out;
}

milliseconds timeOf(const std::string& text, unsigned otherwise)
{
    return milliseconds{text.empty() ? otherwise : number(text)};
}

tBehaviour behaviourOf(const std::string& word, const std::string& argument)
{
    if (word == "error") {
        if (!argument.empty() && sd_bus_interface_name_is_valid(argument.c_str()) <= 0)
            refuse("'" + argument + "' is no error name; for instance com.kelvora.Error.Odd is one");
        return argument.empty() ? tBehaviour::error() : tBehaviour::error(argument);
    }
    if (word == "silent")
        return tBehaviour::silent();
    if (word == "slow")
        return tBehaviour::delayed(timeOf(argument, 1000));
    if (word == "wrong-type")
        return tBehaviour::wrongType();
    if (word == "empty")
        return tBehaviour::empty();
    if (word == "restart")
        return tBehaviour::crash(timeOf(argument, 100));
    if (word == "normal")
        return tBehaviour::normal();
    refuse("'" + word +
           "' is nothing that a member can do; try error, silent, slow:MS, wrong-type, empty, restart or normal");
}

} // namespace

std::vector<std::string> Faults::help()
{
    return {"SERVICE.MEMBER=error[:NAME] | silent | slow:MS | wrong-type | empty | restart[:MS] | normal",
            "                          followed by *N: for the next N calls only",
            "SERVICE=...               the same for all its members, or absent | present | late:MS | crash",
            "logo.Finished=slow:MS | silent | error | wrong-type | normal",
            "line=hangup | normal      normal: a new line, which the daemon opens within two seconds",
            "system-bus=absent | normal      user-bus=absent | normal",
            "SERVICE is sysd, idle, logo or systemd; for instance sysd.GetParamInt=error*2 or logo=absent"};
}

std::vector<std::string> Faults::targets()
{
    std::vector<std::string> out = {"line", "system-bus", "user-bus", "logo.Finished"};
    for (const Service* service : mDevice.services()) {
        out.push_back(service->shortName());
        for (const std::string& member : service->memberNames())
            out.push_back(service->shortName() + "." + member);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<std::string> Faults::effects()
{
    return {"absent", "crash",   "empty",   "error",  "hangup", "late:",
            "normal", "present", "restart", "silent", "slow:",  "wrong-type"};
}

Faults::tEffect Faults::parse(const std::string& text)
{
    tEffect out;
    out.word = text;
    if (const auto star = out.word.find('*'); star != std::string::npos) {
        out.times = number(out.word.substr(star + 1));
        out.word.erase(star);
    }
    if (const auto colon = out.word.find(':'); colon != std::string::npos) {
        out.argument = out.word.substr(colon + 1);
        out.word.erase(colon);
    }
    return out;
}

void Faults::apply(const std::string& command)
{
    const auto equals = command.find('=');
    if (equals == std::string::npos)
        refuse("'" + command + "' has no '='; for instance sysd.GetParamInt=error");
    const std::string target = command.substr(0, equals);
    const tEffect effect = parse(command.substr(equals + 1));
    if (target == "line")
        return applyToLine(effect);
    if (target == "system-bus" || target == "user-bus")
        return applyToBus(target, effect);
    if (target == "logo.Finished")
        return applyToLogos(effect);

    const auto dot = target.find('.');
    Service* service = mDevice.service(target.substr(0, dot));
    if (service == nullptr)
        refuse("there is no '" + target.substr(0, dot) +
               "'; there are sysd, idle, logo, systemd, line, system-bus and user-bus");
    if (dot == std::string::npos)
        return applyToService(*service, effect);
    const auto names = service->memberNames();
    const std::string member = target.substr(dot + 1);
    if (std::find(names.begin(), names.end(), member) == names.end()) {
        std::string all;
        for (const std::string& name : names)
            all += " " + name;
        refuse(service->shortName() + " has no '" + member + "'; it has" + all);
    }
    applyToMember(*service, member, effect);
}

void Faults::applyToLine(const tEffect& effect)
{
    if (effect.word == "hangup")
        mDevice.hangUpLine();
    else if (effect.word == "normal")
        mDevice.reopenLine();
    else
        refuse("the line can be line=hangup or line=normal");
}

void Faults::applyToBus(const std::string& bus, const tEffect& effect)
{
    const bool absent = effect.word == "absent";
    if (!absent && effect.word != "normal")
        refuse("a bus can be " + bus + "=absent or " + bus + "=normal");
    if (bus == "system-bus")
        absent ? mDevice.stopSystemBus() : mDevice.startSystemBus();
    else
        absent ? mDevice.stopUserBus() : mDevice.startUserBus();
}

void Faults::applyToLogos(const tEffect& effect)
{
    LogoHandler& logo = mDevice.logo();
    if (effect.word == "slow")
        logo.setDuration(timeOf(effect.argument, 1000));
    else if (effect.word == "silent")
        logo.setDuration(std::nullopt);
    else if (effect.word == "error")
        logo.setResult(false);
    else if (effect.word == "wrong-type")
        logo.setWrongType(true);
    else if (effect.word == "normal") {
        logo.setDuration(LogoHandler::kDuration);
        logo.setResult(true);
        logo.setWrongType(false);
    } else
        refuse("the logos can finish slow:MS, silent, error, wrong-type or normal");
}

void Faults::applyToService(Service& service, const tEffect& effect)
{
    if (effect.word == "absent")
        service.goAway();
    else if (effect.word == "crash")
        service.crash();
    else if (effect.word == "late")
        service.late(timeOf(effect.argument, 1000));
    else if (effect.word == "present")
        service.comeBack();
    else if (effect.word == "normal") {
        service.clearBehaviour();
        service.comeBack();
    } else
        applyToMember(service, "*", effect);
}

void Faults::applyToMember(Service& service, const std::string& member, const tEffect& effect)
{
    service.setBehaviour(member, behaviourOf(effect.word, effect.argument).times(effect.times));
}

} // namespace sim
