#include "foundation/HexDump.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <limits>

namespace vexa {

namespace {

constexpr std::size_t kMaxLabel = 200;  // title and tag; the rest of a longer one is cut off
constexpr std::size_t kMaxBytes = std::numeric_limits<std::int16_t>::max();

}  // namespace

void HexDump(const char* title, const char* tag, const unsigned char* data, int count) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::array<char, kMaxLabel + 3 * kMaxBytes + 1> line;  // only the line's bytes are ever set
    const int label = std::snprintf(line.data(), kMaxLabel, "%s - %s:", title, tag);
    char* end = line.data() + std::clamp(label, 0, static_cast<int>(kMaxLabel) - 1);
    const auto bytes = static_cast<std::int16_t>(count);
    for (std::int16_t i = 0; i < bytes; ++i) {
        *end++ = ' ';
        *end++ = kDigits[data[i] >> 4U];
        *end++ = kDigits[data[i] & 0x0FU];
    }
    *end++ = '\n';
    // One call, so that the lines of two threads never mix.
    std::fwrite(line.data(), 1, static_cast<std::size_t>(end - line.data()), stdout);
}

}  // namespace vexa
