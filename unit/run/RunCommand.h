// "vexa-unit run": a program on a virtual unit.
#pragma once

#include <string>
#include <vector>

namespace vexa::unit {

struct RunOptions {
    std::string scenario;              // name or file; empty: the built-in one
    std::string folder;                // empty: a temporary one
    std::string journal;               // file; empty: none
    std::vector<std::string> program;  // with its arguments; empty: the service
};

// Runs the program to its end; returns its exit status. Throws UserError when something that the
// user gave cannot be used; nothing is left behind then either.
[[nodiscard]] int RunOnUnit(const RunOptions& options);

}  // namespace vexa::unit
