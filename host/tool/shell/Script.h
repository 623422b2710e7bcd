// Scripts of shell commands.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

#include "tool/Exit.h"
#include "tool/shell/Session.h"

namespace vexahost::tool {

// One line of a script. The body of "repeat" is the lines up to its "end".
struct ScriptLine {
    std::size_t number;  // in the file, from 1
    Words words;
    std::vector<ScriptLine> body;
};

// Reads a script, called `name` in errors. kInvalidArgument, with the line, for a quote, a "repeat"
// or an "end" without its counterpart. The commands are checked only when they run.
Expected<std::vector<ScriptLine>> ReadScript(std::istream& input, const std::string& name);

// Runs a script and prints the output of its commands; with `verbose` the commands as well. Stops
// at the first that fails, reports its line on standard error, and returns the exit code for it.
ExitCode RunScript(Session& session, const std::vector<ScriptLine>& lines, const std::string& name,
                   bool verbose);

}  // namespace vexahost::tool
