// Exit codes of vexa-host, the same for every command.
#pragma once

#include "vexahost/Error.h"

enum ExitCode : int {
    kExitDone = 0,
    kExitWrongAnswer = 1,  // the unit refused, or did not behave as it should
    kExitUsage = 2,        // wrong arguments, or no unit to connect to
    kExitTimeout = 3,
    kExitLinkLost = 4,  // the link ended, or the unit broke the protocol
    kExitInterrupted = 130,
};

/// Says the error in one line on standard error and gives the exit code for it.
ExitCode ReportError(const vexahost::Error& error);
