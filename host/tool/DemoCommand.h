// "vexa-host demo": a whole host session against a virtual unit that it starts.
#pragma once

#include <string>
#include <vector>

#include "ExitCode.h"

struct DemoOptions {
    std::string directory;             // of the unit; empty: a temporary one, removed at the end
    std::vector<std::string> command;  // starts the unit; "{dir}" in it stands for the directory
};

/// Plays the session and shows both sides on standard output. kExitDone when every step went as
/// expected.
ExitCode RunDemo(const DemoOptions& options);
