// vexa-host: the host side of a unit's link, on the command line.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "Connection.h"
#include "DemoCommand.h"
#include "ExitCode.h"
#include "QueryCommand.h"
#include "StreamCommand.h"
#include "SyncCommand.h"

namespace {

// Each Add... function below adds a command that fills `options`, runs when it is chosen, and puts
// its exit code into `exitCode`.

// Gives the directory its default.
void AddUnitOptions(CLI::App& command, UnitAddress& unit) {
    unit.directory = DefaultUnitDirectory();
    auto* directory =
        command
            .add_option(
                "--unit", unit.directory,
                "directory of the unit, or its host socket ($VEXA_UNIT_DIR, else build/unit)")
            ->option_text("DIR");
    command.add_option("--tcp", unit.tcp, "a unit that serves its link over TCP (port 38144)")
        ->option_text("HOST[:PORT]")
        ->excludes(directory);
}

void AddSyncCommand(CLI::App& program, SyncOptions& options, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "sync", "Connect, bring the unit's packet parser in step, and leave again");
    AddUnitOptions(*command, options.unit);
    command->footer("Example: vexa-host sync --unit build/unit");
    command->callback([&options, &exitCode] { exitCode = RunSync(options); });
}

void AddQueryCommand(CLI::App& program, QueryOptions& options, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "query", "Ask whether the unit's own DAQ application holds the acquisition hardware");
    AddUnitOptions(*command, options.unit);
    command->footer("Example: vexa-host query --unit build/unit");
    command->callback([&options, &exitCode] { exitCode = RunQuery(options); });
}

void AddStreamCommand(CLI::App& program, StreamOptions& options, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "stream", "Open sensors and print what they send, a line for each block");
    AddUnitOptions(*command, options.unit);
    command->add_option("NAME", options.names, "names of the sensors")->required()->expected(1, 9);
    command->add_option("--arm", options.arm, "HID sensors that are to be sent the init request")
        ->option_text("NAME ...");
    command->add_option("--for", options.duration, "how long, e.g. 3s, 500ms, 2m (until Ctrl-C)")
        ->option_text("TIME");
    command->footer(
        "Examples: vexa-host stream Accelerometer Microphone --for 3s\n"
        "          vexa-host stream Thermometer --arm Thermometer --for 10s");
    command->callback([&options, &exitCode] { exitCode = RunStream(options); });
}

void AddDemoCommand(CLI::App& program, DemoOptions& options, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "demo", "Start a virtual unit, play a whole host session against it, and show both sides");
    command
        ->add_option("--dir", options.directory,
                     "directory of the unit (a temporary one, removed at the end)")
        ->option_text("DIR");
    command
        ->add_option("COMMAND", options.command,
                     "what starts the unit; {dir} stands for the directory")
        ->required()
        ->option_text("-- COMMAND ARGS...");
    command->positionals_at_end();
    command->footer(
        "Example: vexa-host demo -- vexa-unit run --dir {dir} --journal {dir}/journal\n"
        "Exit codes: 0 when every step went as expected, else 1.");
    command->callback([&options, &exitCode] { exitCode = RunDemo(options); });
}

int Run(int argc, char** argv) {
    SyncOptions sync;
    QueryOptions query;
    StreamOptions stream;
    DemoOptions demo;
    ExitCode exitCode = kExitDone;
    CLI::App program("Talks to a unit as its host computer does.", "vexa-host");
    program.require_subcommand(1);
    program.footer(
        "Exit codes: 0 done; 1 the unit refused or answered wrongly; 2 wrong usage, or no unit to\n"
        "connect to; 3 no answer in time; 4 the link was lost, or the unit broke the protocol;\n"
        "130 interrupted.");
    AddSyncCommand(program, sync, exitCode);
    AddQueryCommand(program, query, exitCode);
    AddStreamCommand(program, stream, exitCode);
    AddDemoCommand(program, demo, exitCode);
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return program.exit(error);
        return ReportError({vexahost::ErrorKind::kInvalidArgument,
                            std::string(error.what()) + " (vexa-host --help says more)"});
    }
    return exitCode;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {  // the system is out of memory or threads
        std::fprintf(stderr, "vexa-host: %s\n", error.what());
        return kExitWrongAnswer;
    }
}
