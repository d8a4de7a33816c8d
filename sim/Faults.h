#pragma once

#include "sim/Device.h"

#include <string>
#include <vector>

namespace sim {

/// Makes the device misbehave, by commands that a person can type:
///
///   sysd.GetParamInt=error            one member answers with an error; also error:NAME
///   sysd.GetParamInt=silent*3         three times, then as always
///   idle=slow:3000                    every member of a service, answers after 3000 ms
///   sysd.Ready=wrong-type             or empty, or restart:100 (loses its connection instead of answering)
///   sysd=absent   logo=late:2000   systemd=crash   idle=present
///   logo.Finished=slow:3000           the logos last so long; silent: for ever; error: they fail; wrong-type
///   line=hangup   line=normal         the serial line
///   system-bus=absent   user-bus=normal
///   sysd.GetParamInt=normal           undoes it
class Faults
{
public:
    explicit Faults(Device& device)
        : mDevice(device)
    {}

    /// Throws std::invalid_argument, with a text for people, when the command cannot be understood.
    void apply(const std::string& command);
    /// What may be typed, a line each.
    static std::vector<std::string> help();
    /// Everything that may stand before the "=".
    std::vector<std::string> targets();
    /// Everything that may stand behind it.
    static std::vector<std::string> effects();

private:
    struct tEffect
    {
        std::string word;
        std::string argument; ///< behind the colon
        unsigned times = 0;   ///< behind the asterisk
    };

    static tEffect parse(const std::string& text);
    void applyToLine(const tEffect& effect);
    void applyToBus(const std::string& bus, const tEffect& effect);
    void applyToLogos(const tEffect& effect);
    void applyToService(Service& service, const tEffect& effect);
    void applyToMember(Service& service, const std::string& member, const tEffect& effect);

    Device& mDevice;
};

} // namespace sim
