// The unit that a command talks to.
#pragma once

#include <memory>
#include <string>

#include "vexahost/Client.h"

/// Id under which the commands open the controller.
inline constexpr vexahost::ChildId kControllerId = 1;

/// Id of the first device that a command opens; more count up from it.
inline constexpr vexahost::ChildId kFirstDeviceId = 0x1001;

/// The unit's directory when none is given: $VEXA_UNIT_DIR, else "build/unit".
std::string DefaultUnitDirectory();

/// Connects to the unit in that directory and brings both sides in step.
vexahost::Expected<std::unique_ptr<vexahost::Client>> ConnectAndSync(const std::string& directory);
