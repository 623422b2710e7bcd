// "vexa-unit ctl": asks something of a running unit.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vexa::unit {

// Requests as docs/virtual-unit.md describes them.
struct ControlRequest {
    std::string verb;
    std::vector<std::pair<std::string, std::string>> texts;  // members that are text
    std::vector<std::string> settings;                       // further members, each "key=value"
    std::string inside;  // member that holds the settings; empty: the request itself
};

struct ControlOptions {
    std::string folder;  // of the unit; empty: $VEXA_UNIT_DIR, or else build/unit
    bool json = false;   // prints the answer as it comes
    std::string raw;     // a request as JSON, or "-" for one a line from standard input
    ControlRequest request;
};

// Folder of the unit that is meant when none is given.
[[nodiscard]] std::string DefaultUnitFolder();

// Sends the request, or with `raw` that, and prints the answer. Returns the exit status: 0, or 1
// when the unit refuses. Throws UserError when the request cannot be put together or no unit
// answers.
[[nodiscard]] int ControlUnit(const ControlOptions& options);

}  // namespace vexa::unit
