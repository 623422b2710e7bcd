// Pseudo-random numbers that are the same in each run with the same seed.
#pragma once

#include <cstdint>
#include <string_view>

namespace vexa::unit {

inline constexpr std::uint32_t kDefaultSeed = 1;

// A sequence of numbers. One thread at a time.
class Random {
  public:
    // `purpose` tells the sequences of one seed apart, so that none depends on how many numbers
    // another has used.
    Random(std::uint32_t seed, std::string_view purpose) : state(seed) {
        for (const char letter : purpose) {
            state = (state ^ static_cast<unsigned char>(letter)) * 0x100000001B3U;
        }
    }

    // 0 to `limit` - 1.
    [[nodiscard]] std::uint32_t Below(std::uint32_t limit) {
        state += 0x9E3779B97F4A7C15U;
        std::uint64_t mixed = state;
        mixed = (mixed ^ mixed >> 30U) * 0xBF58476D1CE4E5B9U;
        mixed = (mixed ^ mixed >> 27U) * 0x94D049BB133111EBU;
        return static_cast<std::uint32_t>((mixed ^ mixed >> 31U) % limit);
    }

  private:
    std::uint64_t state;
};

}  // namespace vexa::unit
