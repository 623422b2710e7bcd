// "vexa-host stream": what sensors send.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "Connection.h"
#include "ExitCode.h"

struct StreamOptions {
    UnitAddress unit;
    std::vector<std::string> names;  // of the sensors
    std::set<std::string> arm;       // those of them that are to be sent the init request
    std::string duration;            // as ParseDuration() takes it; empty: until interrupted
};

/// Opens the sensors and prints what they send, a line for each block, and at the end the figures
/// of each on standard error. Errors, also wrong options, are said on standard error.
ExitCode RunStream(const StreamOptions& options);
