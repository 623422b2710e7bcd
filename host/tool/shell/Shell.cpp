#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

#include "tool/Exit.h"
#include "tool/Verbs.h"
#include "tool/shell/Prompt.h"
#include "tool/shell/Script.h"

namespace vexahost::tool {

namespace {

struct ShellOptions {
    UnitAddress unit;
    std::string script;  // empty: standard input
    bool verbose = false;
};

std::vector<std::string> CommandNames() {
    std::vector<std::string> names = {"expect", "try"};
    for (const Command& command : Commands()) names.emplace_back(command.name);
    return names;
}

ExitCode RunInteractively(Session& session) {
    std::printf("Connected and in step. \"help\" lists the commands, Ctrl-D ends.\n");
    Prompt prompt([&](bool isFirst) { return isFirst ? CommandNames() : session.OpenNames(); });
    while (const auto line = prompt.Read(session.IsLinkUp() ? "vexa> " : "vexa (no link)> ")) {
        const auto words = SplitLine(*line);
        if (!words) {
            std::fprintf(stderr, "a quote has no end\n");
            continue;
        }
        const Outcome outcome = session.Run(*words);
        if (IsInterrupted()) {
            ForgetInterrupt();
            std::printf("\n");
            continue;
        }
        if (!outcome.text.empty()) std::printf("%s\n", outcome.text.c_str());
        std::fflush(stdout);
        if (outcome.error) std::fprintf(stderr, "%s\n", outcome.error->message.c_str());
        if (outcome.quits) break;
    }
    return kExitDone;
}

Expected<std::vector<ScriptLine>> ReadScriptOf(const ShellOptions& options,
                                               const std::string& name) {
    if (options.script.empty()) return ReadScript(std::cin, name);
    std::ifstream file(options.script);
    if (!file) {
        return Error{ErrorKind::kInvalidArgument,
                     "cannot read " + options.script + ": " + std::strerror(errno)};
    }
    return ReadScript(file, name);
}

ExitCode RunShell(const ShellOptions& options) {
    const bool isInteractive = options.script.empty() && isatty(STDIN_FILENO) == 1;
    const std::string name = options.script.empty() ? "standard input" : options.script;
    std::vector<ScriptLine> lines;
    if (!isInteractive) {
        auto script = ReadScriptOf(options, name);
        if (!script) return ReportError(script.error());
        lines = std::move(*script);
    }
    const auto session = Session::Start(options.unit);
    if (!session) return ReportError(session.error());
    CatchInterrupts();
    if (isInteractive) return RunInteractively(**session);
    return RunScript(**session, lines, name, options.verbose);
}

}  // namespace

Verb ShellVerb() {
    const auto options = std::make_shared<ShellOptions>();
    return {.name = "shell",
            .summary = "Hold a session by hand, command by command, or run a script of commands",
            .options = WithUnitOptions(
                options->unit,
                {{"--script", "FILE",
                  "run the commands in a file (also when standard input is no terminal)",
                  &options->script},
                 {"-v,--verbose", "", "print each command of the script", &options->verbose}}),
            .notes = "Commands:\n" + CommandsHelp() +
                     "\nA script stops at the first command that fails, with the exit code for it: "
                     "vexa-host --help.\n"
                     "Examples: vexa-host shell\n"
                     "          printf 'controller\\nopen Accelerometer\\nwait 2s\\nstats\\n' | "
                     "vexa-host shell\n"
                     "          vexa-host shell --script host/scripts/default.vexa",
            .run = [options] { return RunShell(*options); }};
}

}  // namespace vexahost::tool
