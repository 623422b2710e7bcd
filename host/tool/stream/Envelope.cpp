#include "tool/stream/Envelope.h"

#include <algorithm>
#include <cmath>

namespace vexahost::tool {

std::int64_t Envelope::NumberOf(Clock::time_point time) {
    return std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch()) / kSlot;
}

void Envelope::Add(double value, Clock::time_point now) {
    if (!std::isfinite(value)) return;
    const std::int64_t number = NumberOf(now);
    if (slots.empty() || slots.back().first < number) {
        if (slots.size() == kSlots) slots.pop_front();
        slots.push_back({number, {value, value}});
        return;
    }
    Slot& slot = slots.back().second;
    slot.lowest = std::min(slot.lowest, value);
    slot.highest = std::max(slot.highest, value);
}

const Envelope::Slot* Envelope::Find(std::int64_t number) const {
    const auto found =
        std::ranges::lower_bound(slots, number, {}, &std::pair<std::int64_t, Slot>::first);
    return found != slots.end() && found->first == number ? &found->second : nullptr;
}

std::optional<Envelope::Slot> Envelope::Range(std::size_t columns, Clock::time_point now) const {
    const std::int64_t first = NumberOf(now) - static_cast<std::int64_t>(columns) + 1;
    std::optional<Slot> range;
    for (const auto& [number, slot] : slots) {
        if (number < first) continue;
        if (!range) range = slot;
        range->lowest = std::min(range->lowest, slot.lowest);
        range->highest = std::max(range->highest, slot.highest);
    }
    return range;
}

// A slot is a bar from its lowest to its highest sample. With Unicode a character is two slots wide
// and four levels high (Braille dots), else one slot and one level.
std::vector<std::string> Envelope::Draw(std::size_t columns, std::size_t rows,
                                        Clock::time_point now, bool unicode) const {
    const std::size_t across = unicode ? 2 : 1;
    const std::size_t levels = rows * (unicode ? 4 : 1);
    const auto range = Range(columns * across, now);
    std::vector<std::vector<bool>> dots(levels, std::vector<bool>(columns * across));
    const auto levelOf = [&](double value) {
        const double whole = range->highest / 2 - range->lowest / 2;  // halved: it cannot overflow
        const double part = whole > 0 ? (value / 2 - range->lowest / 2) / whole : 0.5;
        return static_cast<std::size_t>(std::lround(part * static_cast<double>(levels - 1)));
    };
    const std::int64_t first = NumberOf(now) - static_cast<std::int64_t>(columns * across) + 1;
    for (std::size_t column = 0; range && column < columns * across; ++column) {
        const Slot* const slot = Find(first + static_cast<std::int64_t>(column));
        if (slot == nullptr) continue;
        const std::size_t top = levelOf(slot->highest);
        for (std::size_t level = levelOf(slot->lowest); level <= top; ++level) {
            dots[levels - 1 - level][column] = true;
        }
    }
    std::vector<std::string> lines(rows);
    for (std::size_t row = 0; row < rows; ++row) {
        for (std::size_t column = 0; column < columns; ++column) {
            if (!unicode) {
                lines[row] += dots[row][column] ? '|' : ' ';
                continue;
            }
            // The bits of a Braille character: 1 2 3 7 down its left side, 4 5 6 8 down its right.
            constexpr unsigned kBits[4][2] = {
                {0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};
            unsigned bits = 0;
            for (std::size_t i = 0; i < 4; ++i) {
                for (std::size_t j = 0; j < 2; ++j) {
                    if (dots[row * 4 + i][column * 2 + j]) bits |= kBits[i][j];
                }
            }
            // U+2800 and up, as UTF-8.
            lines[row] += '\xE2';
            lines[row] += static_cast<char>(0xA0U + (bits >> 6U));
            lines[row] += static_cast<char>(0x80U + (bits & 0x3FU));
        }
    }
    return lines;
}

}  // namespace vexahost::tool
