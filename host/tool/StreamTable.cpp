#include "StreamTable.h"

#include <cstdio>

#include "DeviceData.h"
#include "SparkLine.h"

namespace {

constexpr std::size_t kGraphColumns = 32;
constexpr std::chrono::milliseconds kRedraw{100};
constexpr std::chrono::milliseconds kFigures{1000};

}  // namespace

StreamTable::StreamTable(const Console& output, const std::vector<std::string>& names)
    : console(output), figuresAt(Clock::now()), drawnAt(figuresAt) {
    for (const std::string& name : names) rows.push_back({name, 0, 0, 0, 0, {}});
}

void StreamTable::Add(std::size_t device, std::span<const std::uint8_t> block) {
    Row& row = rows.at(device);
    ++row.blocks;
    row.bytes += block.size();
    const auto samples = DecodeSamples(block);
    if (!samples) return;
    for (const std::int16_t value : samples->values) {
        if (row.graph.size() == kGraphColumns) row.graph.pop_front();
        row.graph.push_back(value);
    }
}

void StreamTable::Update(Clock::time_point now) {
    const bool figuresDue = now - figuresAt >= kFigures;
    if (figuresDue) TakeFigures(now);
    if (console.IsTerminal() ? now - drawnAt >= kRedraw : figuresDue) {
        Draw();
        drawnAt = now;
    }
}

void StreamTable::Finish(Clock::time_point now) {
    const bool figuresDue = now - figuresAt >= kFigures / 2;
    if (figuresDue) TakeFigures(now);
    if (figuresDue || console.IsTerminal()) Draw();
}

void StreamTable::TakeFigures(Clock::time_point now) {
    const double seconds = std::chrono::duration<double>(now - figuresAt).count();
    for (Row& row : rows) {
        row.blocksPerSecond = static_cast<double>(row.blocks) / seconds;
        row.bytesPerSecond = static_cast<double>(row.bytes) / seconds;
        row.blocks = row.bytes = 0;
    }
    figuresAt = now;
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
    constexpr std::size_t kBeside = 56;  // columns in front of it
    const std::size_t room = console.Width() > kBeside ? console.Width() - kBeside : 0;
    return SparkLine(row.graph, room, console.HasUnicode());
}
