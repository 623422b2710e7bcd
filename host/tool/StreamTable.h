// Figures of running streams: a table that is redrawn in place in a terminal, else a line for each
// device and second.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "Console.h"

class StreamTable {
  public:
    using Clock = std::chrono::steady_clock;

    /// `names` are those of the devices, in the order of the indices that Add takes.
    StreamTable(const Console& console, const std::vector<std::string>& names);

    /// Counts a block of a device.
    void Add(std::size_t device, std::span<const std::uint8_t> block);

    /// Prints what is due by `now`: call it often.
    void Update(Clock::time_point now);

    /// Prints what has come since the last full second, for the end.
    void Finish(Clock::time_point now);

  private:
    struct Row {
        std::string name;
        std::uint64_t blocks = 0;    // since the last figures
        std::uint64_t bytes = 0;     // since the last figures
        double blocksPerSecond = 0;  // the last figures
        double bytesPerSecond = 0;   // the last figures
        std::deque<double> graph;    // newest samples
    };

    void TakeFigures(Clock::time_point now);
    void Draw();
    [[nodiscard]] std::string RowText(const Row& row) const;
    [[nodiscard]] std::string Graph(const Row& row) const;

    const Console& console;
    std::vector<Row> rows;
    Clock::time_point figuresAt;  // when the last figures were taken
    Clock::time_point drawnAt;
    bool drawn = false;
};
