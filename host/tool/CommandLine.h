// The command line as data: each verb describes itself once, and parsing, help texts, and whatever
// else has to know the command line are made from that description. One thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tool/Exit.h"

namespace vexahost::tool {

// A whole number within limits; `value` keeps its default when the option is not given.
struct Number {
    std::uint64_t* value;
    std::uint64_t least;
    std::uint64_t most;
};

// Words, as many as are given up to `most`.
struct WordList {
    std::vector<std::string>* words;
    std::size_t most;
};

// A flag that may be followed by a value of its own form, so that no other word is mistaken for it.
// `value` becomes `bare` without one.
struct FlagWithValue {
    std::string* value;
    std::string bare;
    bool (*isValue)(const std::string& word);
};

// Where the value of an option is stored; its type says what may be typed. The objects live as long
// as the verb's `run`, which usually owns them.
using Target = std::variant<bool*,                                      // a flag
                            std::string*, Number, WordList,             //
                            FlagWithValue,                              //
                            std::optional<std::chrono::milliseconds>*,  // "3s", "500ms", "2m"
                            std::vector<std::string>*>;                 // may be repeated

struct Option {
    std::string name;         // "--for"; "-v,--verbose" for both spellings; "NAME": a positional
    std::string placeholder;  // stands for the value in help; of a positional: replaces its name
    std::string help;
    Target target;
    bool required = false;
    std::vector<std::string> excludes{};  // names of options that cannot be given with this one
    std::string needs{};                  // name of the option without which this one is an error
};

struct Verb {
    std::string name;
    std::string summary;
    std::vector<Option> options;  // in the order of the help text
    std::string notes;            // below the options in the help text
    std::function<ExitCode()> run;
    bool restIsCommand = false;  // the first positional and all after it belong to another program
};

struct Program {
    std::string name;
    std::string summary;
    std::string notes;  // below the list of verbs in the help text
    std::vector<Verb> verbs;
};

// Runs the verb that the command line names, or prints the help text it asks for. A wrong command
// line is one line on standard error and kExitUsage.
ExitCode RunProgram(const Program& program, const std::vector<std::string>& words);

}  // namespace vexahost::tool
