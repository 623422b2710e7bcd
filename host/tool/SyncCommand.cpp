#include "SyncCommand.h"

#include <cstdio>

#include "Connection.h"

ExitCode RunSync(const SyncOptions& options) {
    auto client = ConnectAndSync(options.unit);
    if (!client) return ReportError(client.Failure());
    std::printf("in step with the unit at %s\n", options.unit.Text().c_str());
    return kExitDone;
}
