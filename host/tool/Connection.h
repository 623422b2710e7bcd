// The unit that a verb talks to.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tool/CommandLine.h"
#include "tool/JsonObject.h"
#include "vexahost/Client.h"
#include "vexahost/SessionRecorder.h"

namespace vexahost::tool {

// Id under which the verbs open the controller.
inline constexpr ChildId kControllerId = 1;

// Id of the first device that a verb opens; the others count up from it.
inline constexpr ChildId kFirstDeviceId = 0x1001;

// The unit's directory when none is given: $VEXA_UNIT_DIR, else "build/unit".
std::string DefaultUnitDirectory();

// Where the unit is: on the USB, on the serial line, at the TCP address, or else in the directory.
struct UnitAddress {
    std::string directory = DefaultUnitDirectory();  // of a virtual unit, or its host socket
    std::string tcp;                                 // "HOST" or "HOST:PORT"
    std::string serial;                              // "PATH" or "PATH:BAUD"
    bool flowControl = false;                        // on the serial line
    std::string usb;                                 // kAnyUsb, or as UsbAddress::Parse reads it

    std::optional<Milliseconds> patience;       // with a unit that is not there yet
    std::shared_ptr<SessionRecorder> recorder;  // of all connections; null: none

    static constexpr const char* kAnyUsb = "any";

    // The one that is used, for a person.
    [[nodiscard]] std::string Text() const;

    // Makes connections to the unit. The first waits for it, if it has to, as long as `patience`
    // says, whatever its limits are.
    [[nodiscard]] TransportFactory Factory() const;
};

// The options that say where the unit is, then `more`.
std::vector<Option> WithUnitOptions(UnitAddress& unit, std::vector<Option> more = {});

// Leaves a unit in order: a unit on a serial line, or one whose cable stays in, does not notice
// that its host has left.
struct Leaver {
    bool closesController = true;  // with everything that is open, if it is open

    // Closes the controller and ends the connection. A unit that does not answer is ignored, as the
    // verb has done its work.
    void operator()(Client* client) const;
};

// The verb's conversation. It is left in order on every way out.
using ClientHandle = std::unique_ptr<Client, Leaver>;

// Connects to the unit and synchronises. From here on signals are flags (CatchInterrupts), and
// every call that waits ends with them.
Expected<ClientHandle> ConnectAndSync(const UnitAddress& unit, ClientOptions options = {});

// The same, and opens the controller without the DAQ.
Expected<ClientHandle> ConnectWithController(const UnitAddress& unit, ClientOptions options = {});

// The devices that are attached to a virtual unit, in the order in which the unit opens those of
// one type. None for other units, which have no way to list them.
std::vector<VirtualDevice> ListDevices(const UnitAddress& unit);

// Opens a device. The error for a refusal says what a virtual unit's devices are called.
Expected<Done> OpenDevice(Client& client, const UnitAddress& unit, const std::string& name,
                          ChildId child);

// Waits until `duration` is over, without one until Ctrl-C. The error that ended the link before.
Expected<Done> Hold(const Client& client, std::optional<Milliseconds> duration);

}  // namespace vexahost::tool
