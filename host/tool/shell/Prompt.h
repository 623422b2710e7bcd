// A line of input at a terminal, with editing, history and completion.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

/// One at a time, used by one thread.
class Prompt {
  public:
    /// `complete` gives the words that may stand where the cursor is; `isFirst` says that it is the
    /// first word of the line.
    using Complete = std::function<std::vector<std::string>(bool isFirst)>;

    explicit Prompt(Complete complete);
    ~Prompt();
    Prompt(const Prompt&) = delete;
    Prompt& operator=(const Prompt&) = delete;

    /// The next line, also kept in the history. Ctrl-C drops what was typed and gives an empty
    /// line; nothing at the end of the input (Ctrl-D).
    std::optional<std::string> Read(const std::string& prompt);
};
