// The terminal as a page.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tool/Exit.h"

namespace vexahost::tool {

// Uses the whole terminal as a page. Standard output must be a terminal, and there is at most one
// object at a time. The destructor restores the terminal, and so do a second Ctrl-C, and Ctrl-Z
// while the program is stopped.
class FullScreen {
  public:
    FullScreen();
    ~FullScreen();
    FullScreen(const FullScreen&) = delete;
    FullScreen& operator=(const FullScreen&) = delete;

    // Lines of the terminal at the moment.
    [[nodiscard]] std::size_t Height() const;

    // Shows `lines`, none wider than the terminal and no more than its height, and clears the rest.
    void Draw(const std::vector<std::string>& lines);

    // The next key that was typed; nothing when there is none. Arrow keys come as "j" and "k".
    [[nodiscard]] std::optional<char> NextKey();

    // Stops the program if Ctrl-Z was typed, and returns true when it is continued.
    bool StopIfAsked();

  private:
    static void Enter();
    static void Leave();

    const AtSecondInterrupt restoring;
};

}  // namespace vexahost::tool
