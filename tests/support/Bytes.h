// Byte sequences in tests, written as hex.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

namespace vexa::test {

using Bytes = std::vector<std::uint8_t>;

// "60 08 00" -> bytes; blanks are optional.
inline Bytes Hex(const std::string& text) {
    Bytes bytes;
    unsigned byte = 0;
    int used = 0;
    for (const char* at = text.c_str(); std::sscanf(at, "%2x%n", &byte, &used) == 1; at += used) {
        bytes.push_back(static_cast<std::uint8_t>(byte));
    }
    return bytes;
}

// Bytes -> "60 08 00".
inline std::string ToHex(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02x ", byte);
        text += digits;
    }
    if (!text.empty()) text.pop_back();
    return text;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// `packet` with its checksum byte right: the sum of bytes 0 to 2 and, for lengths 5 to 253, of all
// from byte 4 on. Written apart from the code under test.
inline Bytes Sealed(Bytes packet) {
    unsigned sum = packet[0] + packet[1] + packet[2];
    if (packet[1] >= 5 && packet[1] <= 253) {
        for (std::size_t i = 4; i < packet[1]; ++i) sum += packet[i];
    }
    packet[3] = static_cast<std::uint8_t>(sum);
    return packet;
}

}  // namespace vexa::test
