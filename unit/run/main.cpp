// vexa-unit: runs the service, or any program, on a virtual unit.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "run/RunCommand.h"
#include "run/UserError.h"

namespace {

using namespace vexa::unit;

int Refuse(const std::string& why) {
    std::fprintf(stderr, "vexa-unit: %s\n", why.c_str());
    return kUserErrorStatus;
}

void AddRunCommand(CLI::App& app, RunOptions& options, int& status) {
    CLI::App* const run = app.add_subcommand("run", "Run the service on a virtual unit");
    run->add_option("--scenario", options.scenario, "What the unit consists of (JSON)")
        ->type_name("FILE");
    run->add_option("--dir", options.folder,
                    "Folder for the unit's socket, host.sock; a temporary one if left out")
        ->type_name("DIR");
    run->add_option("--journal", options.journal, "Append a line for each library call to a file")
        ->type_name("FILE");
    run->add_option("program", options.program,
                    "Program to run instead of VEXADevMgr, with its arguments, after --")
        ->type_name("PROGRAM");
    run->footer(
        "Ends when the program ends, with its exit status (128 + n after signal n);\n"
        "2 when something given here cannot be used.");
    run->callback([&options, &status] { status = RunOnUnit(options); });
}

int Main(int argc, char** argv) {
    CLI::App app("A virtual unit: stands in for the devices, applications and USB link of a unit.",
                 "vexa-unit");
    app.require_subcommand(1);
    RunOptions options;
    int status = 0;
    AddRunCommand(app, options, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForAllHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        return Refuse(error.what());
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Main(argc, argv);
    } catch (const std::exception& error) {
        return Refuse(error.what());
    }
}
