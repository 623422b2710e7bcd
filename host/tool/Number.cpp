#include "Number.h"

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
