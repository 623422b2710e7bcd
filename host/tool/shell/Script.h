// Scripts of shell commands.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

#include "../ExitCode.h"
#include "Session.h"

/// One line of a script. "repeat" holds the lines up to its "end".
struct ScriptLine {
    std::size_t number;  // in the file, from 1
    Words words;
    std::vector<ScriptLine> body;
};

/// Reads a script; `name` is what errors call it. kInvalidArgument, with the line, for a quote, a
/// "repeat" or an "end" without its counterpart. Commands are looked at when they are run.
vexahost::Expected<std::vector<ScriptLine>> ReadScript(std::istream& input,
                                                       const std::string& name);

/// Runs a script and prints what its commands say; with `verbose` the commands as well. Stops at
/// the first that fails, says where on standard error, and gives the exit code for it.
ExitCode RunScript(Session& session, const std::vector<ScriptLine>& lines, const std::string& name,
                   bool verbose);
