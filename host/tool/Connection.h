// The unit that a command talks to.
#pragma once

#include <memory>
#include <string>

#include "vexahost/Client.h"

/// Id under which the commands open the controller.
inline constexpr vexahost::ChildId kControllerId = 1;

/// Id of the first device that a command opens; more count up from it.
inline constexpr vexahost::ChildId kFirstDeviceId = 0x1001;

/// Where the unit is. One of the three counts: the serial line or the TCP address if there is one.
struct UnitAddress {
    std::string directory;     // of a virtual unit, or its host socket
    std::string tcp;           // "HOST" or "HOST:PORT"
    std::string serial;        // "PATH" or "PATH:BAUD"
    bool flowControl = false;  // on the serial line

    /// The one that counts.
    [[nodiscard]] const std::string& Text() const;

    /// What makes connections to the unit.
    [[nodiscard]] vexahost::TransportFactory Factory() const;
};

/// The unit's directory when none is given: $VEXA_UNIT_DIR, else "build/unit".
std::string DefaultUnitDirectory();

/// Connects to the unit and brings both sides in step.
vexahost::Expected<std::unique_ptr<vexahost::Client>> ConnectAndSync(
    const UnitAddress& unit, vexahost::ClientOptions options = {});

/// The same, and opens the controller without the DAQ.
vexahost::Expected<std::unique_ptr<vexahost::Client>> ConnectWithController(
    const UnitAddress& unit, vexahost::ClientOptions options = {});

/// Closes the controller with all that is open. A unit need not see its host leave: over a serial
/// line or with the cable still in, what is open would stay so. Whether the unit answers does not
/// matter to a command that has done its work.
void LeaveInOrder(vexahost::Client& client);
