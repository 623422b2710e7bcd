#include "tool/Parse.h"

#include <charconv>
#include <cmath>
#include <string_view>

namespace vexahost::tool {

std::optional<std::vector<std::uint8_t>> ParseHex(std::string_view text) {
    std::vector<std::uint8_t> bytes;
    while (!text.empty()) {
        if (text.front() == ' ' || text.front() == ':') {
            text.remove_prefix(1);
            continue;
        }
        std::uint8_t byte = 0;
        const char* const end = text.data() + (text.size() < 2 ? 0 : 2);
        const auto [rest, error] = std::from_chars(text.data(), end, byte, 16);
        if (error != std::errc{} || rest != end) return std::nullopt;
        bytes.push_back(byte);
        text.remove_prefix(2);
    }
    if (bytes.empty()) return std::nullopt;
    return bytes;
}

std::optional<std::vector<std::uint8_t>> ParseHex(std::span<const std::string> words) {
    std::string text;
    for (const std::string& word : words) text += word + ' ';
    return ParseHex(text);
}

std::optional<std::chrono::milliseconds> ParseDuration(const std::string& text) {
    constexpr double kMostMilliseconds = 1000.0 * 60 * 60 * 1000;
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc{}) return std::nullopt;
    const std::string_view unit(rest, static_cast<std::size_t>(end - rest));
    if (unit == "s" || unit.empty()) {
        value *= 1000;
    } else if (unit == "m") {
        value *= 60000;
    } else if (unit == "h") {
        value *= 3600000;
    } else if (unit != "ms") {
        return std::nullopt;
    }
    if (!(value >= 1 && value <= kMostMilliseconds)) return std::nullopt;
    return std::chrono::milliseconds(std::llround(value));
}

}  // namespace vexahost::tool
