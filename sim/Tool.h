#pragma once

#include <string>
#include <vector>

namespace sim {

/// What the command line asks for.
struct tArguments
{
    std::string daemon;
    std::vector<std::string> daemonArguments;
    std::vector<std::string> faults;
    std::string json;
    std::string portLink;
    std::string bootFile;
    bool story = false;
    bool quiet = false;
};

/// Runs the device until it is to end; gives the exit status. Throws std::invalid_argument for a fault that cannot be
/// understood, std::runtime_error when the device cannot be set up.
int runTool(const tArguments& arguments);

} // namespace sim
