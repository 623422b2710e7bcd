// A line of input at a terminal, with editing, history and completion.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vexahost::tool {

// One object at a time, and one thread.
class Prompt {
  public:
    // `complete` returns the words that may stand at the cursor; `isFirst` is true for the first
    // word of the line.
    using Complete = std::function<std::vector<std::string>(bool isFirst)>;

    explicit Prompt(Complete complete);
    ~Prompt();
    Prompt(const Prompt&) = delete;
    Prompt& operator=(const Prompt&) = delete;

    // The next line, which also joins the history. Ctrl-C discards what was typed and returns an
    // empty line. Nothing at the end of the input (Ctrl-D).
    std::optional<std::string> Read(const std::string& prompt);
};

}  // namespace vexahost::tool
