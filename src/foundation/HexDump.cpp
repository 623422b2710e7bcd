#include "foundation/HexDump.h"

#include <cstdint>
#include <cstdio>

namespace vexa {

void HexDump(const char* title, const char* tag, const unsigned char* data, int count) {
    constexpr char kDigits[] = "0123456789abcdef";
    const auto bytes = static_cast<std::int16_t>(count);
    flockfile(stdout);
    std::printf("%s - %s:", title, tag);
    for (std::int16_t i = 0; i < bytes; ++i) {
        putchar_unlocked(' ');
        putchar_unlocked(kDigits[data[i] >> 4U]);
        putchar_unlocked(kDigits[data[i] & 0x0FU]);
    }
    putchar_unlocked('\n');
    funlockfile(stdout);
}

}  // namespace vexa
