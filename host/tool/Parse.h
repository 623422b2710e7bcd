// Numbers, bytes and durations as people write them.
#pragma once

#include <charconv>
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vexahost::tool {

// A whole number that T can hold: decimal, or hex after "0x". Nothing when `text` is anything else.
template <typename T>
std::optional<T> ParseNumber(std::string_view text) {
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    if (isHex) text.remove_prefix(2);
    T value{};
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value, isHex ? 16 : 10);
    if (error != std::errc{} || rest != end) return std::nullopt;
    return value;
}

// Bytes in hex, two digits each, with or without blanks or colons between them: "0a1b 2c".
// Nothing when `text` is anything else, or holds no byte.
std::optional<std::vector<std::uint8_t>> ParseHex(std::string_view text);

// The same for words, joined by blanks.
std::optional<std::vector<std::uint8_t>> ParseHex(std::span<const std::string> words);

// A duration such as "3s", "500ms", "2m", "1h" or "1.5" (seconds): 1 ms to 1000 hours.
std::optional<std::chrono::milliseconds> ParseDuration(const std::string& text);

}  // namespace vexahost::tool
