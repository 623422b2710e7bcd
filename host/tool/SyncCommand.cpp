#include <cstdio>
#include <memory>

#include "CommandOptions.h"
#include "Commands.h"
#include "ExitCode.h"

namespace {

int RunSync(const std::string& directory) {
    auto client = ConnectAndSync(directory);
    if (!client) return ReportError(client.Failure());
    std::printf("in step with the unit at %s\n", directory.c_str());
    return kExitDone;
}

}  // namespace

void AddSyncCommand(CLI::App& program, int& exitCode) {
    auto directory = std::make_shared<std::string>();
    auto* command = program.add_subcommand(
        "sync", "Connect, bring the unit's packet parser in step, and leave again");
    AddUnitOption(*command, *directory);
    command->footer("Example: vexa-host sync --unit build/unit");
    command->callback([directory, &exitCode] { exitCode = RunSync(*directory); });
}
