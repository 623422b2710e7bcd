#include <filesystem>
#include <memory>

#include "CommandOptions.h"
#include "Commands.h"
#include "Console.h"
#include "ExitCode.h"
#include "Interrupt.h"
#include "demo/Demo.h"

namespace {

using vexahost::ErrorKind;

struct DemoOptions {
    std::string directory;
    std::vector<std::string> command;
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

int RunDemo(DemoOptions options) {
    CatchInterrupts();
    std::unique_ptr<TemporaryDirectory> temporary;
    if (options.directory.empty()) {
        temporary = std::make_unique<TemporaryDirectory>();
        if (temporary->Path().empty()) {
            return ReportError({ErrorKind::kInvalidArgument, "cannot make a temporary directory"});
        }
        options.directory = temporary->Path();
    }
    for (std::string& word : options.command) ReplaceDirectory(word, options.directory);
    const Console console;
    Demo demo(console, options.command, options.directory);
    return demo.Run();
}

}  // namespace

void AddDemoCommand(CLI::App& program, int& exitCode) {
    auto options = std::make_shared<DemoOptions>();
    auto* command = program.add_subcommand(
        "demo", "Start a virtual unit, play a whole host session against it, and show both sides");
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
    command->callback([options, &exitCode] { exitCode = RunDemo(*options); });
}
