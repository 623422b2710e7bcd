// "vexa-unit ctl": sends a request to a running unit.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vexa::unit {

// A request, as docs/virtual-unit.md describes them.
struct ControlRequest {
    std::string verb;
    std::vector<std::pair<std::string, std::string>> texts;  // members that are text
    std::vector<std::string> settings;                       // further members, each "key=value"
    std::string inside;  // member that has the settings; empty: the request itself
};

struct ControlOptions {
    std::string folder;  // of the unit; empty: $VEXA_UNIT_DIR, or else build/unit
    bool json = false;   // prints the answer as JSON
    std::string raw;     // a request as JSON, or "-": standard input, one per line
    ControlRequest request;
};

// The folder of the unit when none is given.
[[nodiscard]] std::string DefaultUnitFolder();

// Names of the devices of the unit in `folder`; none when no unit answers.
[[nodiscard]] std::vector<std::string> DeviceNames(const std::string& folder);

// Sends the request, or `raw` if it is given, and prints the answer. Returns the exit status: 0,
// kRefusedStatus or kTimeoutStatus. Throws UserError when the request is malformed or no unit
// answers.
[[nodiscard]] int ControlUnit(const ControlOptions& options);

}  // namespace vexa::unit
