// The graph of a channel in text.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vexahost::tool {

// The course of a channel: the lowest and the highest sample of each time slot, the newest slots of
// a fixed number. One thread at a time.
class Envelope {
  public:
    using Clock = std::chrono::steady_clock;

    struct Slot {
        double lowest;
        double highest;
    };

    void Add(double value, Clock::time_point now);

    // Slots as text columns, the newest at the right; lines of "rows" text rows, the highest first.
    // Blank where no sample came.
    [[nodiscard]] std::vector<std::string> Draw(std::size_t columns, std::size_t rows,
                                                Clock::time_point now, bool unicode) const;

    // The lowest and the highest sample of the newest `columns` slots; nothing without a sample.
    [[nodiscard]] std::optional<Slot> Range(std::size_t columns, Clock::time_point now) const;

    static constexpr std::chrono::milliseconds kSlot{100};

  private:
    static std::int64_t NumberOf(Clock::time_point time);
    [[nodiscard]] const Slot* Find(std::int64_t number) const;

    static constexpr std::size_t kSlots = 600;        // a minute, and more than a terminal is wide
    std::deque<std::pair<std::int64_t, Slot>> slots;  // by their number, ascending
};

}  // namespace vexahost::tool
