// Numbers and bytes as people write them.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// A whole number in decimal or, with "0x" in front, in hex, that T can hold; nothing else in
/// `text`.
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

/// Bytes in hex, each of two digits: "0a1b", with blanks or colons between bytes if one likes.
/// Nothing when `text` is not that, or holds no byte.
std::optional<std::vector<std::uint8_t>> ParseHex(std::string_view text);

/// The words joined by blanks, as bytes in hex.
std::optional<std::vector<std::uint8_t>> ParseHex(std::span<const std::string> words);
