// Figures for people: a curve in one line, a table of running streams, round-trip times.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "tool/Console.h"

namespace vexahost::tool {

// The newest of `values` as at most `columns` characters of a curve, scaled to the lowest and the
// highest value shown. Block characters; without `unicode` ASCII.
std::string SparkLine(const std::deque<double>& values, std::size_t columns, bool unicode);

// Rates of running streams: on a terminal a table that is redrawn in place, else a line for each
// device and second. One thread at a time.
class StreamTable {
  public:
    using Clock = std::chrono::steady_clock;

    // The position of a device in `names` is its index for Add.
    StreamTable(const Console& console, const std::vector<std::string>& names);

    // Counts a block of a device.
    void Add(std::size_t device, std::span<const std::uint8_t> block);

    // Prints what is due at `now`. Call it every 100 ms or more often.
    void Update(Clock::time_point now);

    // Prints the last, unfinished second, if at least half of it has passed.
    void Finish(Clock::time_point now);

  private:
    struct Row {
        std::string name;
        std::uint64_t blocks = 0;    // since the last rates
        std::uint64_t bytes = 0;     // since the last rates
        double blocksPerSecond = 0;  // the last rate
        double bytesPerSecond = 0;   // the last rate
        std::deque<double> graph;    // newest samples
    };

    void UpdateRates(Clock::time_point now);
    void Draw();
    [[nodiscard]] std::string RowText(const Row& row) const;
    [[nodiscard]] std::string Graph(const Row& row) const;

    const Console& console;
    std::vector<Row> rows;
    Clock::time_point ratesAt;  // when the rates were last updated
    Clock::time_point drawnAt;
    bool drawn = false;
};

// Times of many round trips. One thread at a time.
class RoundTrips {
  public:
    using Duration = std::chrono::steady_clock::duration;

    void Add(Duration time);
    void AddLost() { ++lost; }

    [[nodiscard]] std::size_t Count() const { return times.size(); }
    [[nodiscard]] std::size_t Lost() const { return lost; }

    // The time in milliseconds that `percent` (0 to 100) of the round trips do not exceed: the
    // nearest rank, so a time that was measured. Needs at least one round trip.
    [[nodiscard]] double Percentile(double percent) const;

    // A line for each class of times: its lower bound, a bar and the number of round trips. At
    // most 20 classes of equal, round width; outliers among the slowest 1 % share the last one.
    // `width` is the length of the longest bar, in columns.
    [[nodiscard]] std::vector<std::string> Histogram(std::size_t width) const;

  private:
    std::vector<double> times;  // in milliseconds, ascending
    std::size_t lost = 0;
};

}  // namespace vexahost::tool
