#include "DemoCommand.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Console.h"
#include "Interrupt.h"
#include "demo/Demo.h"

namespace {

using vexahost::ErrorKind;

struct DemoOptions {
    std::string directory;             // of the unit; empty: a temporary one, removed at the end
    std::vector<std::string> command;  // starts the unit; "{dir}" in it stands for the directory
};

// A directory of its own for the unit, removed with all that is in it.
class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::error_code error;
        std::string pattern = std::filesystem::temp_directory_path(error) / "vexa-demo-XXXXXX";
        if (!error && mkdtemp(pattern.data()) != nullptr) path = pattern;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        if (!path.empty()) std::filesystem::remove_all(path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    /// Empty when none could be made.
    [[nodiscard]] const std::string& Path() const { return path; }

  private:
    std::string path;
};

void ReplaceDirectory(std::string& word, const std::string& directory) {
    constexpr std::string_view kPlace = "{dir}";
    for (auto at = word.find(kPlace); at != std::string::npos;
         at = word.find(kPlace, at + directory.size())) {
        word.replace(at, kPlace.size(), directory);
    }
}

ExitCode RunDemo(const DemoOptions& options) {
    CatchInterrupts();
    std::string directory = options.directory;
    std::unique_ptr<TemporaryDirectory> temporary;
    if (directory.empty()) {
        temporary = std::make_unique<TemporaryDirectory>();
        if (temporary->Path().empty()) {
            return ReportError({ErrorKind::kInvalidArgument, "cannot make a temporary directory"});
        }
        directory = temporary->Path();
    }
    std::vector<std::string> command = options.command;
    for (std::string& word : command) ReplaceDirectory(word, directory);
    const Console console;
    Demo demo(console, command, directory);
    return demo.Run();
}

}  // namespace

void AddDemoCommand(CLI::App& program, ExitCode& exitCode) {
    auto* command = program.add_subcommand(
        "demo", "Start a virtual unit, play a whole host session against it, and show both sides");
    const auto options = std::make_shared<DemoOptions>();
    command
        ->add_option("--dir", options->directory,
                     "directory of the unit (a temporary one, removed at the end)")
        ->option_text("DIR");
    command
        ->add_option("COMMAND", options->command,
                     "what starts the unit; {dir} stands for the directory")
        ->required()
        ->option_text("-- COMMAND ARGS...");
    command->positionals_at_end();
    command->footer(
        "Example: vexa-host demo -- vexa-unit run --dir {dir} --journal {dir}/journal\n"
        "Exit codes: 0 when every step went as expected, else 1.");
    OnChosen(*command, exitCode, [options] { return RunDemo(*options); });
}
