#include "QueryCommand.h"

#include <cstdio>

#include "Connection.h"

// Leaves by disconnecting: closing the controller would tell the applications to take the hardware
// back, although nobody took it from them.
ExitCode RunQuery(const QueryOptions& options) {
    auto client = ConnectAndSync(options.unit);
    if (!client) return ReportError(client.Failure());
    if (const auto opened = (*client)->OpenController(kControllerId, false); !opened) {
        return ReportError(opened.Failure());
    }
    const auto holds = (*client)->QueryDaqApplication();
    if (!holds) return ReportError(holds.Failure());
    std::printf("the unit's DAQ application %s the acquisition hardware\n",
                *holds ? "holds" : "does not hold");
    return kExitDone;
}
