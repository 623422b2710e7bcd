#include "CloseCommand.h"

#include <CLI/CLI.hpp>
#include <cstdio>

#include "Number.h"

namespace {

using vexahost::ChildId;
using vexahost::ErrorKind;

constexpr const char* kController = "controller";

ExitCode RunClose(const UnitAddress& unit, const std::string& what) {
    const auto id = ParseNumber<ChildId>(what);
    if (!id && what != kController) {
        return ReportError({ErrorKind::kInvalidArgument,
                            "\"" + what + "\": expected a child's id, or \"controller\""});
    }
    auto client = ConnectWithController(unit);
    if (!client) return ReportError(client.Failure());
    const auto closed = id ? (*client)->CloseDevice(*id) : (*client)->CloseController();
    if (!closed) return ReportError(closed.Failure());
    std::printf("%s is closed\n", what.c_str());
    return kExitDone;
}

}  // namespace

void AddCloseCommand(CLI::App& program, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "close", "Close the controller, which hands the hardware back, or a child");
    const auto unit = std::make_shared<UnitAddress>();
    const auto what = std::make_shared<std::string>();
    AddUnitOptions(*command, *unit);
    command->add_option("WHAT", *what, "\"controller\", or a child's id (decimal or 0x...)")
        ->required()
        ->option_text(" ");
    command->footer(
        "This is a session of its own, and opening the controller closes all children: an id is\n"
        "refused with error 54. In a session that goes on, close children with vexa-host shell.\n"
        "Example: vexa-host close controller");
    OnChosen(*command, exitCode, [unit, what] { return RunClose(*unit, *what); });
}
