#include <cstdio>
#include <memory>

#include "CommandOptions.h"
#include "Commands.h"
#include "ExitCode.h"

namespace {

// Leaves by disconnecting: closing the controller would tell the applications to take the hardware
// back, although nobody took it from them.
int RunQuery(const std::string& directory) {
    auto client = ConnectAndSync(directory);
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

}  // namespace

void AddQueryCommand(CLI::App& program, int& exitCode) {
    auto directory = std::make_shared<std::string>();
    auto* command = program.add_subcommand(
        "query", "Ask whether the unit's own DAQ application holds the acquisition hardware");
    AddUnitOption(*command, *directory);
    command->footer("Example: vexa-host query --unit build/unit");
    command->callback([directory, &exitCode] { exitCode = RunQuery(*directory); });
}
