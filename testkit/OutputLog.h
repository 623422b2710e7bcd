// What a program prints, collected while it runs.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "foundation/Mutex.h"
#include "testkit/Descriptor.h"
#include "testkit/Wait.h"

namespace vexa::testkit {

// Any thread.
class OutputLog {
  public:
    static constexpr std::size_t kKeepAll = SIZE_MAX;

    // Reads `source` on a thread of its own until the end of the output. Of what came, the last
    // `kept` bytes at least are kept, and at most twice as many.
    explicit OutputLog(Descriptor source, std::size_t kept = kKeepAll);
    ~OutputLog();
    OutputLog(const OutputLog&) = delete;
    OutputLog& operator=(const OutputLog&) = delete;

    // Everything that is kept so far, and its lines; an unfinished line counts as one.
    [[nodiscard]] std::string Text();
    [[nodiscard]] std::vector<std::string> Lines();

    // The lines since the last call; an unfinished line comes once it is whole or the output ended.
    // A line in brackets stands for what came too fast and is not kept.
    std::vector<std::string> TakeLines();

    // Waits until the output after position `from` contains `text`. The position after it; npos
    // when that has not come within `timeout` or the output has ended without it.
    std::size_t WaitFor(std::string_view text, Milliseconds timeout, std::size_t from = 0);

    // Waits for the end of the output: the program, and whatever it started, has closed it. False
    // when it is still open after `timeout`.
    bool WaitForEnd(Milliseconds timeout);

  private:
    void Read();
    void DropOldest() VEXA_REQUIRES(mutex);

    const Descriptor source;
    const std::size_t kept;
    std::atomic<bool> stop{false};
    Mutex mutex;
    std::condition_variable_any changed;
    std::string text VEXA_GUARDED_BY(mutex);
    std::size_t begin VEXA_GUARDED_BY(mutex) = 0;  // position of the text in all the output
    std::size_t taken VEXA_GUARDED_BY(mutex) = 0;  // of the text
    std::size_t missed VEXA_GUARDED_BY(mutex) =
        0;  // bytes that were dropped before they were taken
    bool ended VEXA_GUARDED_BY(mutex) = false;
    std::thread thread;  // last, as it uses all of the above
};

// The lines of a text.
[[nodiscard]] std::vector<std::string> SplitLines(std::string_view text);

}  // namespace vexa::testkit
