#pragma once

#include "core/Vorlan.h"
#include "qv/Frame.h"
#include "sim/Device.h"

#include <functional>
#include <string>

/// The private buses of all controllers of this program.
sim::Device& busesOfControllers();

/// A fresh link controller on a line without a cable: its first read runs the test on its thread, then one frame comes,
/// after which the controller stops. Each reply is told on the thread that writes it; the last one answers that frame.
void onController(const std::function<void(Vorlan&)>& test, std::function<void(const qv::Bytes&)> onReply);

/// Without the lines of the status service, which come from its own thread when they like.
std::string controllersLines(const std::string& lines);
