// The whole terminal as a page that is drawn over and over, and given back as it was.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// One at a time. Standard output must be a terminal. The terminal is set right again by the
/// destructor, by a second Ctrl-C, and while the program is stopped by Ctrl-Z.
class FullScreen {
  public:
    FullScreen();
    ~FullScreen();
    FullScreen(const FullScreen&) = delete;
    FullScreen& operator=(const FullScreen&) = delete;

    /// Lines that the terminal has now.
    [[nodiscard]] std::size_t Height() const;

    /// Shows `lines`, which are to fit the terminal, and nothing else.
    void Draw(const std::vector<std::string>& lines);

    /// True once "q" has been typed.
    [[nodiscard]] bool IsQuitTyped();

    /// Stops the program if Ctrl-Z was typed; returns when it goes on. True when it has stopped.
    bool StopIfAsked();

  private:
    static void Enter();
    static void Leave();

    bool quit = false;
};
