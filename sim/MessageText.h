#pragma once

#include "sim/Handles.h"

#include <string>

namespace sim {

/// The body of a message from its start as text: 24, "VisuURL", true, {"Mode": "static"}. The read position is at the
/// start again afterwards.
std::string bodyText(sd_bus_message* message);
/// The next complete value as text; the read position moves behind it.
std::string valueText(sd_bus_message* message);
/// The text in quotation marks, with bytes that are not printable ASCII or UTF-8 written as \xNN.
std::string quoted(const std::string& text);

} // namespace sim
