// Bytes as a host sends them, and the host link that they come over: what the service sends stays
// in the output buffer.
#pragma once

#include <benchmark/benchmark.h>

#include <vector>

#include "protocol/Packet.h"
#include "support/HostPackets.h"
#include "support/QueuedHostLink.h"

namespace vexa::bench {

// Packets that no router delivers, in pieces that the host ring holds.
struct HostPackets {
    std::vector<test::Bytes> pieces;
    std::size_t packets = 0;
    std::size_t bytes = 0;
};

// At least 200 packets of `size` bytes; one in `badEvery` has a wrong checksum, 0 for none.
inline HostPackets Packets(std::size_t size, std::size_t badEvery) {
    constexpr std::size_t kPackets = 200;
    HostPackets all;
    while (all.packets < kPackets) {
        test::Bytes& piece = all.pieces.emplace_back();
        for (; piece.size() + size < kHostBufferSize; ++all.packets) {
            test::Bytes packet(size);
            for (std::size_t i = 0; i < size; ++i) {
                packet[i] = static_cast<std::uint8_t>(all.packets * 31 + i * 7);
            }
            packet[kTypeOffset] = 0x80;
            packet[kLengthOffset] = static_cast<std::uint8_t>(size);
            SealPacket(packet);
            if (badEvery != 0 && all.packets % badEvery == 0) packet[kChecksumOffset] ^= 1U;
            piece.insert(piece.end(), packet.begin(), packet.end());
        }
        all.bytes += piece.size();
    }
    return all;
}

// Time in the loop counts as time per packet and per byte.
inline void CountPackets(benchmark::State& state, std::size_t packets, std::size_t bytes) {
    using Counter = benchmark::Counter;
    const auto total = [&](std::size_t perIteration) {
        return static_cast<double>(state.iterations()) * static_cast<double>(perIteration);
    };
    const auto timePer = Counter::kIsRate | Counter::kInvert;
    state.counters["s/packet"] = Counter(total(packets), timePer);
    state.counters["s/byte"] = Counter(total(bytes), timePer);
}

}  // namespace vexa::bench
