#include "SparkLine.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace {

constexpr std::array<const char*, 8> kBlocks = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array<const char*, 8> kLetters = {"_", ".", ",", "-", "=", "+", "*", "#"};

}  // namespace

std::string SparkLine(const std::deque<double>& values, std::size_t columns, bool unicode) {
    const auto& levels = unicode ? kBlocks : kLetters;
    const std::size_t shown = std::min(values.size(), columns);
    if (shown == 0) return "";
    const auto first = values.end() - static_cast<std::ptrdiff_t>(shown);
    const auto [lowest, highest] = std::minmax_element(first, values.end());
    const double range = *highest - *lowest;
    const auto top = static_cast<double>(levels.size() - 1);
    std::string text;
    for (auto value = first; value != values.end(); ++value) {
        // Halved first, so that a range beyond the largest number is none. Not a number: lowest.
        const double place = range > 0 ? (*value / 2 - *lowest / 2) / (range / 2) * top : 0;
        const bool isPlace = place >= 0 && place <= top;
        text += levels[isPlace ? static_cast<std::size_t>(place) : 0];
    }
    return text;
}
