// "vexa-host query": who holds the acquisition hardware.
#pragma once

#include <string>

#include "ExitCode.h"

struct QueryOptions {
    std::string unit;  // its directory or its host socket
};

/// Prints whether the unit's own DAQ application holds the acquisition hardware. Errors are said on
/// standard error.
ExitCode RunQuery(const QueryOptions& options);
