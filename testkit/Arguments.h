// A command line before it is parsed, and what to say about one that cannot be.
#pragma once

#include <string>
#include <vector>

namespace vexa::testkit {

// A command, with what it accepts.
struct Command {
    // An option, or an argument without one. `value` is what stands for its value in the help,
    // such as "FILE".
    struct Option {
        std::string name;
        bool takesValue = false;
        std::string value = {};
        std::string help = {};
    };

    std::string name;
    std::string help = {};
    std::vector<Option> options = {};
    std::vector<Option> arguments = {};
    std::vector<Command> commands = {};
};

// `words` as the parser wants them: options that stand before the command they belong to follow
// it, and a "--" before a command is left out. What follows the last command stays as it is.
[[nodiscard]] std::vector<std::string> Arranged(const Command& program,
                                                const std::vector<std::string>& words);

// Why `words` cannot be carried out when the parser refuses them: a command that is missing or
// does not exist, or else what it did not expect (`extras`), in the order of `words`. Empty: the
// reason is another one.
[[nodiscard]] std::string WhatIsWrong(const Command& program, const std::vector<std::string>& words,
                                      const std::vector<std::string>& extras);

}  // namespace vexa::testkit
