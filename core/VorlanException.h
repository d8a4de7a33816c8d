#pragma once

#include <stdexcept>
#include <string>

/// Leaves the handling of a request; ends the request loop unless keepRunning is set.
class VorlanException : public std::runtime_error
{
public:
    VorlanException(const std::string& message, int keep)
        : std::runtime_error(message)
        , keepRunning(keep)
    {}

    int keepRunning;
};
