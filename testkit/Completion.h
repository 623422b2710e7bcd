// What a command line's description is good for besides parsing: completion in a shell, and the
// options of the manual page.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "testkit/Arguments.h"

namespace vexa::testkit {

// The values that an option or argument can have at the moment, such as the names of devices.
// `command` is the command it belongs to, `words` all that was typed.
using ValuesOf = std::function<std::vector<std::string>(
    const Command& command, const Command::Option& option, const std::vector<std::string>& words)>;

// What can stand in place of the last of `words`: a candidate a line, "WORD\tHELP". A line ":files"
// or ":folders" stands for names of files. The completions in packaging/completions read this.
[[nodiscard]] std::string Candidates(const Command& program, const std::vector<std::string>& words,
                                     const ValuesOf& valuesOf);

// A section OPTIONS in mdoc: every command with its arguments and options.
[[nodiscard]] std::string ManualSection(const Command& program);

// Answers "--complete WORDS..." and "--manual", which packaging alone uses, on standard output.
// False for any other command line.
[[nodiscard]] bool AnswerPackaging(const Command& program, const std::vector<std::string>& words,
                                   const ValuesOf& valuesOf);

}  // namespace vexa::testkit
