// Takes a fuzz input apart.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : rest(data, size) {}

    [[nodiscard]] bool IsEmpty() const { return rest.empty(); }

    // 0 at the end.
    std::uint8_t Byte() {
        if (rest.empty()) return 0;
        const std::uint8_t byte = rest.front();
        rest = rest.subspan(1);
        return byte;
    }

    // As many as there are, at most so many.
    std::vector<std::uint8_t> Bytes(std::size_t most) {
        const auto taken = rest.first(std::min(most, rest.size()));
        rest = rest.subspan(taken.size());
        return {taken.begin(), taken.end()};
    }

  private:
    std::span<const std::uint8_t> rest;
};
