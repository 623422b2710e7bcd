// "vexa-host sync": brings the unit in step, and no more.
#pragma once

#include <string>

#include "ExitCode.h"

struct SyncOptions {
    std::string unit;  // its directory or its host socket
};

/// Connects to the unit, brings its packet parser in step and leaves again. Errors are said on
/// standard error.
ExitCode RunSync(const SyncOptions& options);
