// The virtual unit's journal: a line for each call that the service makes to the unit's libraries,
// and for each answer of an application.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

class Journal {
  public:
    /// `path` need not exist yet.
    explicit Journal(std::string path);

    /// Waits for a line with `text` among those that were not taken yet. False when none comes in
    /// time, or when interrupted.
    bool WaitFor(std::string_view text, std::chrono::milliseconds timeout);

    /// The complete lines that were not taken yet.
    std::vector<std::string> Take();

  private:
    void Read();

    const std::string path;
    long readTo = 0;  // offset behind the last complete line that was read
    std::vector<std::string> lines;
};
