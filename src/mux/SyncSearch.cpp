#include "mux/SyncSearch.h"

#include <array>

namespace vexa {

namespace {

constexpr std::size_t kSignatureSize = kInitialSyncSignature.size();

// For each value of a byte: how many bytes later a signature that contains this byte, or begins
// after it, can end at the earliest.
constexpr auto kDistanceToEnd = [] {
    std::array<std::uint8_t, 256> distance{};
    distance.fill(kSignatureSize);
    for (std::size_t index = 0; index < kSignatureSize; ++index) {
        distance[kInitialSyncSignature[index]] =
            static_cast<std::uint8_t>(kSignatureSize - 1 - index);
    }
    return distance;
}();

}  // namespace

std::size_t SyncSearch::Find(std::span<const std::uint8_t> window) {
    const std::size_t count = window.size() - kHistory;
    std::size_t at = unseen;
    while (at < count) {
        std::size_t distance = kDistanceToEnd[window[kHistory + at]];
        if (distance == 0) {
            if (IsInitialSync(window.subspan(at, kInitialSyncSize))) return at + 1;
            distance = kSignatureSize;
        }
        at += distance;
    }
    unseen = at - count;
    return 0;
}

}  // namespace vexa
