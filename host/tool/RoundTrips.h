// Figures of many round trips.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

class RoundTrips {
  public:
    using Duration = std::chrono::steady_clock::duration;

    void Add(Duration time);
    void AddLost() { ++lost; }

    [[nodiscard]] std::size_t Count() const { return times.size(); }
    [[nodiscard]] std::size_t Lost() const { return lost; }

    /// The time that `percent` (0 to 100) of the round trips do not exceed, in milliseconds: the
    /// nearest rank, so always one that was measured. Only with at least one.
    [[nodiscard]] double Percentile(double percent) const;

    /// A line for each class of times: its lower bound, a bar and the number of round trips. At
    /// most 20 classes of equal, round width; the slowest 1 % share the last one when they are far
    /// off. `width` is that of the longest bar, in columns.
    [[nodiscard]] std::vector<std::string> Histogram(std::size_t width) const;

  private:
    std::vector<double> times;  // in milliseconds, ascending
    std::size_t lost = 0;
};
