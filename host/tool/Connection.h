// The unit that a verb talks to.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tool/CommandLine.h"
#include "vexahost/Client.h"

namespace vexahost::tool {

// Id under which the verbs open the controller.
inline constexpr ChildId kControllerId = 1;

// Id of the first device that a verb opens; the others count up from it.
inline constexpr ChildId kFirstDeviceId = 0x1001;

// The unit's directory when none is given: $VEXA_UNIT_DIR, else "build/unit".
std::string DefaultUnitDirectory();

// Where the unit is: the serial line if there is one, else the TCP address, else the directory.
struct UnitAddress {
    std::string directory = DefaultUnitDirectory();  // of a virtual unit, or its host socket
    std::string tcp;                                 // "HOST" or "HOST:PORT"
    std::string serial;                              // "PATH" or "PATH:BAUD"
    bool flowControl = false;                        // on the serial line

    // The one that is used.
    [[nodiscard]] const std::string& Text() const;

    // Makes connections to the unit.
    [[nodiscard]] TransportFactory Factory() const;
};

// The options that say where the unit is, then `more`.
std::vector<Option> WithUnitOptions(UnitAddress& unit, std::vector<Option> more = {});

// Connects to the unit and synchronises.
Expected<std::unique_ptr<Client>> ConnectAndSync(const UnitAddress& unit,
                                                 ClientOptions options = {});

// The same, and opens the controller without the DAQ.
Expected<std::unique_ptr<Client>> ConnectWithController(const UnitAddress& unit,
                                                        ClientOptions options = {});

// Waits until `duration` is over, without one until Ctrl-C. The error that ended the link before.
Expected<Done> Hold(const Client& client, std::optional<Milliseconds> duration);

// Closes the controller with everything that is open: a unit on a serial line, or one whose cable
// stays in, does not notice that its host has left. A unit that does not answer is ignored, as the
// verb has done its work.
void LeaveInOrder(Client& client);

}  // namespace vexahost::tool
