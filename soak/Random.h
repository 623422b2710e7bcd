// Random numbers that a seed and a name give again and again.
#pragma once

#include <cstdint>
#include <random>
#include <string_view>

namespace vexa::soak {

class Random {
  public:
    Random(std::uint64_t seed, std::string_view name) : engine(Mixed(seed, name)) {}

    // From `least` to `most`, both included.
    [[nodiscard]] std::uint32_t Between(std::uint32_t least, std::uint32_t most) {
        return least + static_cast<std::uint32_t>(engine() % (most - least + 1ULL));
    }

    [[nodiscard]] bool Coin() { return Between(0, 1) == 1; }

  private:
    // The same in every standard library, unlike std::hash.
    static std::uint64_t Mixed(std::uint64_t seed, std::string_view name) {
        std::uint64_t hash = 0xCBF29CE484222325U ^ seed;
        for (const char letter : name) {
            hash = (hash ^ static_cast<unsigned char>(letter)) * 0x100000001B3U;
        }
        return hash;
    }

    std::mt19937_64 engine;
};

}  // namespace vexa::soak
