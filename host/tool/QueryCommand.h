// "vexa-host query": who holds the acquisition hardware.
#pragma once

#include "Connection.h"
#include "ExitCode.h"

struct QueryOptions {
    UnitAddress unit;
};

/// Prints whether the unit's own DAQ application holds the acquisition hardware. Errors are said on
/// standard error.
ExitCode RunQuery(const QueryOptions& options);
