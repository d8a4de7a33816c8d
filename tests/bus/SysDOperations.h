#pragma once

#include "dbus/SDBusSysD.h"
#include "sim/SysDaemon.h"

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

/// One operation of the system daemon's client: what it sends, what it gives, what it writes when a step fails.
struct tOperation
{
    std::string name;
    std::string member;
    std::string signature; ///< of its arguments
    std::string arguments;
    std::function<std::string(SDBusSysD&)> run; ///< gives the result as text; empty without one
    std::string result;                         ///< after a call that worked
    std::string failure;                        ///< after one that did not
    std::string createLine;                     ///< each line with its newline; empty when the step is silent or absent
    std::string appendLine;
    std::string callLine;
    std::string readLine;

    /// As BusTest::calls() has it.
    std::string call() const { return "sysd." + member + (signature.empty() ? "" : " " + signature + " " + arguments); }
};

std::ostream& operator<<(std::ostream& out, const tOperation& operation);

/// Every operation that calls a method, each once.
const std::vector<tOperation>& sysDOperations();

/// Gives the stand-in the stores with which every operation works.
void fillStores(sim::SysDaemon& sysd);
