#include "RoundTrips.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

constexpr double kMostClasses = 18;

// The least of 1, 2, 5, 10, 20 .. hundredths of a millisecond that makes few enough classes.
double ClassWidth(double range) {
    for (double decade = 0.01;; decade *= 10) {
        for (const double step : {1.0, 2.0, 5.0}) {
            if (range / (decade * step) <= kMostClasses) return decade * step;
        }
    }
}

}  // namespace

void RoundTrips::Add(Duration time) {
    const double value = std::chrono::duration<double, std::milli>(time).count();
    times.insert(std::ranges::upper_bound(times, value), value);
}

double RoundTrips::Percentile(double percent) const {
    const double rank = std::ceil(percent / 100 * static_cast<double>(times.size()));
    const auto index = static_cast<std::size_t>(std::max(rank, 1.0)) - 1;
    return times.at(std::min(index, times.size() - 1));
}

std::vector<std::string> RoundTrips::Histogram(std::size_t width) const {
    if (times.empty()) return {};
    const double top = Percentile(99);
    const double step = ClassWidth(top - times.front());
    const double first = std::floor(times.front() / step) * step;
    const auto classes = static_cast<std::size_t>(std::floor((top - first) / step)) + 1;
    std::vector<std::size_t> counts(classes + 1);
    for (const double time : times) {
        const auto place = static_cast<std::size_t>(std::max((time - first) / step, 0.0));
        ++counts[std::min(place, classes)];
    }
    if (counts.back() == 0) counts.pop_back();
    const std::size_t most = *std::ranges::max_element(counts);
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < counts.size(); ++i) {
        char text[64];
        const bool isRest = i == classes;
        std::snprintf(text, sizeof text, "%10.2f ms%s ", first + static_cast<double>(i) * step,
                      isRest ? "+" : " ");
        const std::size_t bar = (counts[i] * width + most - 1) / most;
        lines.push_back(text + std::string(bar, '#') + (bar > 0 ? " " : "") +
                        std::to_string(counts[i]));
    }
    return lines;
}
