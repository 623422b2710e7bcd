// Scripts of shell commands.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tool/Exit.h"
#include "tool/shell/Report.h"
#include "tool/shell/Session.h"

namespace vexahost::tool {

// One line of a script. The body of "repeat" is the lines up to its "end".
struct ScriptLine {
    std::size_t number;  // in the file, from 1
    Words words;
    std::vector<ScriptLine> body;

    // As it was typed, but with single blanks.
    [[nodiscard]] std::string Text() const;
};

// Reads a script, as much of it at a time as can be run. One thread at a time.
class ScriptReader {
  public:
    // Returns the next line of text; nothing at the end. `isInside` is true inside a "repeat".
    using NextLine = std::function<std::optional<std::string>(bool isInside)>;

    // The script is called `name` in errors.
    ScriptReader(NextLine nextLine_, std::string scriptName)
        : nextLine(std::move(nextLine_)), name(std::move(scriptName)) {}

    // The next command, a "repeat" with its whole body; nothing at the end. kInvalidArgument, with
    // the line, for a quote, a "repeat" or an "end" without its counterpart, and for a "repeat" in
    // 100 others. The commands are checked only when they run.
    Expected<std::optional<ScriptLine>> Next();

    [[nodiscard]] const std::string& Name() const { return name; }

  private:
    Expected<std::optional<ScriptLine>> Read(std::size_t depth, bool& isEnd);
    [[nodiscard]] Error Wrong(std::size_t line, const std::string& why) const;

    const NextLine nextLine;
    const std::string name;
    std::size_t number = 0;
};

// Runs a script and prints the output of its commands; with `verbose` the commands as well. Stops
// at the first that fails, reports its line on standard error, and returns the exit code for it.
// Each command, and each "repeat" as a whole, is a test of `report`.
ExitCode RunScript(Session& session, ScriptReader& reader, bool verbose, ScriptReport& report);

}  // namespace vexahost::tool
