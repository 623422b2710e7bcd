#include "tool/Figures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "tool/Samples.h"

namespace vexahost::tool {

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
        // Halved first, so that the range cannot overflow. NaN gets the lowest level.
        const double place = range > 0 ? (*value / 2 - *lowest / 2) / (range / 2) * top : 0;
        const bool isPlace = place >= 0 && place <= top;
        text += levels[isPlace ? static_cast<std::size_t>(place) : 0];
    }
    return text;
}

namespace {

constexpr std::size_t kGraphColumns = 32;
constexpr std::chrono::milliseconds kRedraw{100};
constexpr std::chrono::milliseconds kRates{1000};

}  // namespace

StreamTable::StreamTable(const Console& output, const std::vector<std::string>& names)
    : console(output), ratesAt(Clock::now()), drawnAt(ratesAt) {
    for (const std::string& name : names) rows.push_back({name, 0, 0, 0, 0, {}});
}

void StreamTable::Add(std::size_t device, std::span<const std::uint8_t> block) {
    Row& row = rows.at(device);
    ++row.blocks;
    row.bytes += block.size();
    for (const double value : SamplesOf(block)) {
        if (row.graph.size() == kGraphColumns) row.graph.pop_front();
        row.graph.push_back(value);
    }
}

void StreamTable::Update(Clock::time_point now) {
    const bool ratesDue = now - ratesAt >= kRates;
    if (ratesDue) UpdateRates(now);
    if (console.IsTerminal() ? now - drawnAt >= kRedraw : ratesDue) {
        Draw();
        drawnAt = now;
    }
}

void StreamTable::Finish(Clock::time_point now) {
    const bool ratesDue = now - ratesAt >= kRates / 2;
    if (ratesDue) UpdateRates(now);
    if (ratesDue || console.IsTerminal()) Draw();
}

void StreamTable::UpdateRates(Clock::time_point now) {
    const double seconds = std::chrono::duration<double>(now - ratesAt).count();
    for (Row& row : rows) {
        row.blocksPerSecond = static_cast<double>(row.blocks) / seconds;
        row.bytesPerSecond = static_cast<double>(row.bytes) / seconds;
        row.blocks = row.bytes = 0;
    }
    ratesAt = now;
}

void StreamTable::Draw() {
    if (console.IsTerminal() && drawn) {
        std::printf("\033[%zuA", rows.size() + 1);
    }
    if (!drawn || console.IsTerminal()) {
        std::printf(
            "    %s\n",
            console.Styled(Style::kDim, "device          blocks/s  bytes/s  last sample").c_str());
    }
    drawn = true;
    for (const Row& row : rows) {
        std::printf("    %s%s\n", RowText(row).c_str(), console.IsTerminal() ? "\033[K" : "");
    }
    std::fflush(stdout);
}

std::string StreamTable::RowText(const Row& row) const {
    char text[96];
    const int last = row.graph.empty() ? 0 : static_cast<int>(row.graph.back());
    std::snprintf(text, sizeof text, "%-14.14s  %8.1f %8.0f  %11d  ", row.name.c_str(),
                  row.blocksPerSecond, row.bytesPerSecond, last);
    return text + Graph(row);
}

std::string StreamTable::Graph(const Row& row) const {
    constexpr std::size_t kBefore = 56;  // columns of the row before the graph
    const std::size_t room = console.Width() > kBefore ? console.Width() - kBefore : 0;
    return SparkLine(row.graph, room, console.HasUnicode());
}

namespace {

constexpr double kMostClasses = 18;

// The smallest of 0.01, 0.02, 0.05, 0.1 .. ms that makes few enough classes.
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

}  // namespace vexahost::tool
