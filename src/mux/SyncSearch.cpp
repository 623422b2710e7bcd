#include "mux/SyncSearch.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace vexa {

namespace {

constexpr std::size_t kSignatureSize = kInitialSyncSignature.size();

// By value of a byte: the distance to the nearest place at or behind it where a signature that
// takes in this byte, or begins behind it, can end.
constexpr auto kDistanceToEnd = [] {
    std::array<std::uint8_t, 256> distance{};
    distance.fill(kSignatureSize);
    for (std::size_t index = 0; index < kSignatureSize; ++index) {
        distance[kInitialSyncSignature[index]] =
            static_cast<std::uint8_t>(kSignatureSize - 1 - index);
    }
    return distance;
}();

bool IsInitialSync(const std::uint8_t* packet) {
    return std::equal(kInitialSyncSignature.rbegin(), kInitialSyncSignature.rend(),
                      std::make_reverse_iterator(packet + kInitialSyncSize)) &&
           TypeClass(packet[kTypeOffset]) == kClassCommand &&
           packet[kLengthOffset] == kInitialSyncSize &&
           packet[kCommandOffset] == kInitialSyncCommand &&
           packet[kChecksumOffset] == PacketChecksum(packet);
}

}  // namespace

std::size_t SyncSearch::Find(const std::uint8_t* bytes, std::size_t count) {
    std::size_t at = unseen;
    while (at < count) {
        std::size_t distance = kDistanceToEnd[bytes[at]];
        if (distance == 0) {
            if (IsInitialSync(bytes + at - kHistory)) return at;
            distance = kSignatureSize;
        }
        at += distance;
    }
    unseen = at - count;
    return count;
}

}  // namespace vexa
