#include "ExitCode.h"

#include <cstdio>

using vexahost::ErrorKind;

ExitCode ReportError(const vexahost::Error& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "vexa-host: %s\n", error.message.c_str());
    switch (error.kind) {
        case ErrorKind::kRefused:
            return kExitWrongAnswer;
        case ErrorKind::kInvalidArgument:
        case ErrorKind::kCannotConnect:
            return kExitUsage;
        case ErrorKind::kTimeout:
            return kExitTimeout;
        case ErrorKind::kLinkLost:
        case ErrorKind::kProtocolViolation:
            return kExitLinkLost;
    }
    return kExitWrongAnswer;
}
