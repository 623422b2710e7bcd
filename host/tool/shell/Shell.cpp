#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <utility>

#include "tool/Exit.h"
#include "tool/Verbs.h"
#include "tool/shell/Prompt.h"
#include "tool/shell/Script.h"
#include "vexahost/DeviceFile.h"

namespace vexahost::tool {

namespace {

struct ShellOptions {
    UnitAddress unit;
    std::string script;      // empty: standard input
    std::string report;      // empty: none
    std::string deviceFile;  // empty: the one of the configuration folder, if there is one
    bool verbose = false;
};

std::vector<std::string> CommandNames() {
    std::vector<std::string> names = {"expect", "try", "repeat"};
    for (const Command& command : Commands()) names.emplace_back(command.name);
    return names;
}

// "repeat" is a script, whose further lines are asked for.
void RunTypedRepeat(Session& session, Prompt& prompt, const std::string& line) {
    bool isFirst = true;
    const auto next = [&](bool isInside) -> std::optional<std::string> {
        if (std::exchange(isFirst, false)) return line;
        return isInside ? prompt.Read("... ") : std::nullopt;
    };
    ScriptReader reader(next, "repeat");
    ScriptReport none;
    RunScript(session, reader, false, none);
}

ExitCode RunInteractively(Session& session) {
    std::printf("Connected and in step. \"help\" lists the commands, Ctrl-D ends.\n");
    Prompt prompt([&](bool isFirst) { return isFirst ? CommandNames() : session.OpenNames(); });
    while (const auto line = prompt.Read(session.IsLinkUp() ? "vexa> " : "vexa (no link)> ")) {
        const auto words = SplitLine(*line);
        Outcome outcome;
        if (words && !words->empty() && words->front() == "repeat") {
            RunTypedRepeat(session, prompt, *line);
        } else {
            outcome = words ? session.Run(*words) : Outcome::Wrong("a quote has no end");
        }
        if (IsTerminated()) return kExitInterrupted;
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
    return IsTerminated() ? kExitInterrupted : kExitDone;
}

// The lines of standard input as they come, so that a program can converse with the shell.
class InputLines {
  public:
    // The next line; nothing at the end of the input or when interrupted.
    std::optional<std::string> Next() {
        constexpr int kInterruptPollMs = 50;
        for (;;) {
            const std::size_t end = text.find('\n');
            if (end != std::string::npos || (isEnd && !text.empty())) {
                std::string line = text.substr(0, end);
                text.erase(0, end == std::string::npos ? end : end + 1);
                return line;
            }
            if (isEnd || IsInterrupted()) return std::nullopt;
            pollfd entry{STDIN_FILENO, POLLIN, 0};
            if (poll(&entry, 1, kInterruptPollMs) != 1) continue;
            std::array<char, 4096> buffer;
            const ssize_t count = read(STDIN_FILENO, buffer.data(), buffer.size());
            if (count > 0) text.append(buffer.data(), static_cast<std::size_t>(count));
            isEnd = count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
        }
    }

  private:
    std::string text;  // read, but not yet returned
    bool isEnd = false;
};

Expected<std::vector<std::string>> ReadLines(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    if (file) {
        for (std::string line; std::getline(file, line);) lines.push_back(std::move(line));
        if (!file.bad()) return lines;
    }
    return Error{ErrorKind::kInvalidArgument, "cannot read " + path + ": " + std::strerror(errno)};
}

ScriptReader::NextLine LinesOf(const std::vector<std::string>& lines) {
    return [&lines, next = std::size_t{0}](bool) mutable -> std::optional<std::string> {
        if (next == lines.size()) return std::nullopt;
        return lines[next++];
    };
}

// A file is read whole before the unit is connected, so that a fault in its form shows at once.
Expected<Done> CheckForm(const std::vector<std::string>& lines, const std::string& name) {
    ScriptReader reader(LinesOf(lines), name);
    for (;;) {
        const auto line = reader.Next();
        if (!line) return line.error();
        if (!*line) return Done{};
    }
}

ExitCode RunShell(const ShellOptions& options) {
    const bool isInteractive = options.script.empty() && isatty(STDIN_FILENO) == 1;
    const bool isFile = !options.script.empty() && options.script != "-";
    const std::string name = isFile ? options.script : "standard input";
    std::vector<std::string> lines;
    if (isFile) {
        auto read = ReadLines(options.script);
        if (!read) return ReportError(read.error());
        lines = std::move(*read);
        const auto checked = CheckForm(lines, name);
        if (!checked) return ReportError(checked.error());
    }
    ScriptReport report;
    if (!options.report.empty()) {
        auto created = ScriptReport::Create(options.report);
        if (!created) return ReportError(created.error());
        report = std::move(*created);
    }
    auto formats = LoadDeviceFormats(options.deviceFile);
    if (!formats) return ReportError(formats.error());
    const auto session = Session::Start(options.unit, std::move(*formats));
    if (!session) return ReportError(session.error());
    if (isInteractive) return RunInteractively(**session);
    InputLines input;
    ScriptReader reader(
        isFile ? LinesOf(lines) : [&](bool) { return input.Next(); }, name);
    const ExitCode code = RunScript(**session, reader, options.verbose, report);
    const auto written = report.Finish(name);
    if (!written) return ReportError(written.error());
    return IsInterrupted() ? kExitInterrupted : code;
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
                 {"--devices", "FILE",
                  "device file, for what \"receive\" prints (vexa/devices.json in "
                  "$XDG_CONFIG_HOME or ~/.config, if there is one)",
                  &options->deviceFile},
                 {"-v,--verbose", "", "print each command of the script", &options->verbose},
                 {"--report", "FILE",
                  "write the outcome of each command: JUnit if FILE ends with .xml, else TAP",
                  &options->report}}),
            .notes = "Commands:\n" + CommandsHelp() +
                     "\nA script stops at the first command that fails, with the exit code for it: "
                     "vexa-host --help.\n"
                     "Lines of standard input run as they come.\n"
                     "Examples: vexa-host shell\n"
                     "          printf 'controller\\nopen Accelerometer\\nwait 2s\\nstats\\n' | "
                     "vexa-host shell\n"
                     "          vexa-host shell --script host/scripts/default.vexa",
            .run = [options] { return RunShell(*options); }};
}

}  // namespace vexahost::tool
