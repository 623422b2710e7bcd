// "vexa-host sync": brings the unit in step, and no more.
#pragma once

#include "Connection.h"
#include "ExitCode.h"

struct SyncOptions {
    UnitAddress unit;
};

/// Connects to the unit, brings its packet parser in step and leaves again. Errors are said on
/// standard error.
ExitCode RunSync(const SyncOptions& options);
