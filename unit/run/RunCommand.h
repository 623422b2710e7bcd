// "vexa-unit run" and "vexa-unit scenarios".
#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace vexa::unit {

struct RunOptions {
    std::string scenario;              // name or file; empty: the built-in one
    std::string folder;                // empty: a temporary one
    std::string callLog;               // file; empty: none
    std::string link = "socket";       // or "usb": the service opens the node of vexa-usb
    std::string vexa;                  // a unit's own libVEXA.so; empty: the stand-in
    std::string vexcri;                // a unit's own libvexcri.so; empty: the stand-in
    bool describes = false;            // prints scenario, devices and sockets first
    std::vector<std::string> program;  // with its arguments; empty: the service
};

// The folder of this program.
[[nodiscard]] std::filesystem::path ProgramFolder();
// Where the stand-ins are: "lib" beside that folder, as built, or their own folder, as installed.
// Throws UserError when they are in neither.
[[nodiscard]] std::filesystem::path StandInFolder();

// Runs the program on a virtual unit to its end; returns its exit status, or 128 plus the number of
// the signal that ended it. Throws UserError when an option cannot be used; nothing is left behind
// then either.
[[nodiscard]] int RunOnUnit(const RunOptions& options);

// The scenarios that come with vexa-unit: names and descriptions, sorted by name. Throws UserError
// when they cannot be read.
[[nodiscard]] std::vector<std::pair<std::string, std::string>> ShippedScenarios();

}  // namespace vexa::unit
