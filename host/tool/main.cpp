// vexa-host: the host side of a unit's link, on the command line.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "CloseCommand.h"
#include "CommandLine.h"
#include "DemoCommand.h"
#include "HelpText.h"
#include "OpenCommand.h"
#include "PingCommand.h"
#include "QueryCommand.h"
#include "SendCommand.h"
#include "SyncCommand.h"
#include "TakeoverCommand.h"
#include "recording/DecodeCommand.h"
#include "recording/RecordCommand.h"
#include "recording/ReplayCommand.h"
#include "shell/ShellCommand.h"
#include "stream/StreamCommand.h"

namespace {

// In the order of the help text.
constexpr AddCommand* kCommands[] = {
    AddSyncCommand,   AddQueryCommand,  AddTakeoverCommand, AddOpenCommand,  AddCloseCommand,
    AddSendCommand,   AddStreamCommand, AddPingCommand,     AddShellCommand, AddRecordCommand,
    AddDecodeCommand, AddReplayCommand, AddDemoCommand,
};

int Run(int argc, char** argv) {
    ExitCode exitCode = kExitDone;
    CLI::App program("Talks to a unit as its host computer does.", "vexa-host");
    program.require_subcommand(1);
    program.formatter(std::make_shared<HelpText>());
    program.footer(
        "Try it: vexa-unit run --dir build/unit, and in another terminal:\n"
        "vexa-host stream Accelerometer Microphone. Each command's --help has examples.\n\n"
        "Exit codes: 0 done; 1 the unit refused or answered wrongly; 2 wrong usage, or no unit to\n"
        "connect to; 3 no answer in time; 4 the link was lost, or the unit broke the protocol;\n"
        "130 interrupted.");
    for (AddCommand* const add : kCommands) add(program, exitCode);
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
