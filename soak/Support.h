// Interrupts, random numbers, and what a process uses.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>

namespace vexa::soak {

inline constexpr int kInterruptedStatus = 130;  // exit status after a signal

// From now on SIGINT, SIGTERM and SIGHUP set a flag; a second signal ends the program at once.
void CatchInterrupts();
[[nodiscard]] bool IsInterrupted();

// Random numbers that are the same for the same seed and name. One thread at a time.
class Random {
  public:
    Random(std::uint64_t seed, std::string_view name) : engine(Mixed(seed, name)) {}

    // From `least` to `most`, inclusive.
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

// What a process uses of the system's resources.
struct ProcessFigures {
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    std::size_t memoryKiB = 0;  // resident and anonymous: pages of files come and go
};

// All zero when there is no such process.
[[nodiscard]] ProcessFigures FiguresOf(pid_t process);

// The youngest running child of `parent`; -1 when there is none.
[[nodiscard]] pid_t LastChildOf(pid_t parent);

[[nodiscard]] bool IsRunning(pid_t process);

// "12 threads, 20 descriptors, 900 KiB"
[[nodiscard]] std::string ToText(const ProcessFigures& figures);

}  // namespace vexa::soak
