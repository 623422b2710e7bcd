#include "SyncCommand.h"

#include <CLI/CLI.hpp>
#include <cstdio>

namespace {

ExitCode RunSync(const UnitAddress& unit) {
    auto client = ConnectAndSync(unit);
    if (!client) return ReportError(client.Failure());
    std::printf("in step with the unit at %s\n", unit.Text().c_str());
    return kExitDone;
}

}  // namespace

void AddSyncCommand(CLI::App& program, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "sync", "Connect, bring the unit's packet parser in step, and leave again");
    const auto unit = std::make_shared<UnitAddress>();
    AddUnitOptions(*command, *unit);
    command->footer("Example: vexa-host sync --dir build/unit");
    OnChosen(*command, exitCode, [unit] { return RunSync(*unit); });
}
