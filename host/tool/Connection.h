// The unit that a command talks to.
#pragma once

#include <memory>
#include <string>

#include "vexahost/Client.h"

/// Id under which the commands open the controller.
inline constexpr vexahost::ChildId kControllerId = 1;

/// Id of the first device that a command opens; more count up from it.
inline constexpr vexahost::ChildId kFirstDeviceId = 0x1001;

/// Where the unit is.
struct UnitAddress {
    std::string directory;  // of a virtual unit, or its host socket
    std::string tcp;        // "HOST" or "HOST:PORT"; stands before the directory when not empty

    /// The one of the two that counts.
    [[nodiscard]] const std::string& Text() const { return tcp.empty() ? directory : tcp; }
};

/// The unit's directory when none is given: $VEXA_UNIT_DIR, else "build/unit".
std::string DefaultUnitDirectory();

/// Connects to the unit and brings both sides in step.
vexahost::Expected<std::unique_ptr<vexahost::Client>> ConnectAndSync(const UnitAddress& unit);
