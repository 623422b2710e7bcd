#include "QueryCommand.h"

#include <CLI/CLI.hpp>
#include <cstdio>

namespace {

// Leaves by disconnecting: closing the controller would tell the applications to take the hardware
// back, although nobody took it from them.
ExitCode RunQuery(const UnitAddress& unit, bool json) {
    auto client = ConnectWithController(unit);
    if (!client) return ReportError(client.Failure());
    const auto holds = (*client)->QueryDaqApplication();
    if (!holds) return ReportError(holds.Failure());
    if (json) {
        std::printf("{\"daq_application_holds\":%s}\n", *holds ? "true" : "false");
        return kExitDone;
    }
    std::printf("the unit's DAQ application %s the acquisition hardware\n",
                *holds ? "holds" : "does not hold");
    return kExitDone;
}

}  // namespace

void AddQueryCommand(CLI::App& program, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "query", "Ask whether the unit's own DAQ application holds the acquisition hardware");
    const auto unit = std::make_shared<UnitAddress>();
    AddUnitOptions(*command, *unit);
    const auto json = std::make_shared<bool>(false);
    command->add_flag("--json", *json, "the answer as a JSON object");
    command->footer("Example: vexa-host query --dir build/unit");
    OnChosen(*command, exitCode, [unit, json] { return RunQuery(*unit, *json); });
}
