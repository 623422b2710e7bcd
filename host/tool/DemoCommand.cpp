#include "DemoCommand.h"

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string_view>

#include "Console.h"
#include "Interrupt.h"
#include "demo/Demo.h"

namespace {

using vexahost::ErrorKind;

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

}  // namespace

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
