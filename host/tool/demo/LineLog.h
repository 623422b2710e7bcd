// The lines that a program prints, as they come.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

class LineLog {
  public:
    /// Reads `descriptor`, which it owns from now on, on a thread of its own until the end.
    explicit LineLog(int descriptor);

    ~LineLog();
    LineLog(const LineLog&) = delete;
    LineLog& operator=(const LineLog&) = delete;

    /// Waits for a line with `text` among those that were not taken yet, or for half a line of it.
    /// False when none comes in time, when the program has closed its output, or when interrupted.
    bool WaitFor(std::string_view text, std::chrono::milliseconds timeout);

    /// Waits until the program has closed its output. False when it has not in time.
    bool WaitForEnd(std::chrono::milliseconds timeout);

    /// The complete lines that were not taken yet; with them the end without a line feed, if any.
    std::vector<std::string> Take();

  private:
    void Read();
    bool Holds(std::string_view text) const;

    const int descriptor;
    std::atomic<bool> stop{false};  // set by the destructor, read by the thread
    std::mutex mutex;               // guards all below but the thread
    std::condition_variable changed;
    std::vector<std::string> lines;
    std::string partial;  // the line that has no line feed yet
    bool ended = false;
    std::thread thread;  // last, as it uses all of the above
};
