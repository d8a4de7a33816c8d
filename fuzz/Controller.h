#pragma once

#include "core/Vorlan.h"

#include <cstdint>
#include <memory>
#include <span>

// A controller without a line: its replies are looked at and go nowhere.

/// A fresh controller, which knows nothing of those before it. Needs an InlineThreads.
std::unique_ptr<Vorlan> newController();

/// What a controller asks the system daemon at its start, once.
void readStartParams(Vorlan& vorlan);

/// Hands a request over and checks what QV counts on: one reply, whose status byte holds the command and whether the
/// request was refused; none to a read of an unknown register. Gives what parse gave; throws what it threw.
bool request(Vorlan& vorlan, Vorlan::tBytes message);

/// Hands a row of requests over, each behind a byte that holds its length. Ends early when the update has been started.
void requests(Vorlan& vorlan, std::span<const std::uint8_t> row);
