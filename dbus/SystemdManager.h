#pragma once

#include "dbus/Bus.h"

/// Has the user's systemd manager start a unit, whatever becomes of it. False when the user bus cannot be opened.
bool startUnit(const char* unit, const tIsStopped& isStopped);
