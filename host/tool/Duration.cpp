#include "Duration.h"

#include <charconv>
#include <cmath>
#include <string_view>

std::optional<std::chrono::milliseconds> ParseDuration(const std::string& text) {
    constexpr double kMostMilliseconds = 24.0 * 60 * 60 * 1000;
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc{}) return std::nullopt;
    const std::string_view unit(rest, static_cast<std::size_t>(end - rest));
    if (unit == "s" || unit.empty()) {
        value *= 1000;
    } else if (unit == "m") {
        value *= 60000;
    } else if (unit != "ms") {
        return std::nullopt;
    }
    if (!(value >= 1 && value <= kMostMilliseconds)) return std::nullopt;
    return std::chrono::milliseconds(std::llround(value));
}
