#pragma once

#include <stdexcept>

/// What every failure of the serial layer throws; the text names the class and the operation.
class SerialException : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};
