// Block operations of the two byte rings, and the checksum.
#include <benchmark/benchmark.h>

#include <vector>

#include "foundation/GCircularBuffer.h"
#include "mux/MuxRing.h"
#include "protocol/Packet.h"

namespace vexa {
namespace {

constexpr std::int32_t kRingSize = 10000;

void CountBytes(benchmark::State& state, std::int64_t perIteration) {
    state.SetBytesProcessed(state.iterations() * perIteration);
}

void Checksum(benchmark::State& state) {
    std::vector<std::uint8_t> packet(static_cast<std::size_t>(state.range(0)), 0x5A);
    packet[kLengthOffset] = static_cast<std::uint8_t>(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(packet.data());
        benchmark::ClobberMemory();
        benchmark::DoNotOptimize(PacketChecksum(packet));
    }
    CountBytes(state, state.range(0));
}
BENCHMARK(Checksum)->Arg(8)->Arg(25)->Arg(64)->Arg(253);

// One block in and out again. Blocks of these sizes also cross the end of the storage.
void MuxRingBlock(benchmark::State& state) {
    std::vector<std::uint8_t> storage(kRingSize);
    std::vector<std::uint8_t> block(static_cast<std::size_t>(state.range(0)), 0x5A);
    const auto size = static_cast<std::uint32_t>(state.range(0));
    MuxRing ring;
    ring.Init(storage.data(), kRingSize);
    for ([[maybe_unused]] auto _ : state) {
        ring.WriteBlock(block.data(), size);
        benchmark::DoNotOptimize(ring.Peek(block.data(), 0, static_cast<std::int32_t>(size)));
        for (auto left = size; left > 0;) {
            const auto taken = std::min(left, static_cast<std::uint32_t>(ring.Oldest().size()));
            ring.Drop(taken);
            left -= taken;
        }
    }
    CountBytes(state, state.range(0));
}
BENCHMARK(MuxRingBlock)->Arg(25)->Arg(253)->Arg(3000);

void CircularBufferBlock(benchmark::State& state) {
    CeilingMutex lock{3, OSMutexPtr(OSCreateMutex(""))};
    GCircularBuffer buffer(kRingSize);
    buffer.lock = &lock;
    std::vector<std::uint8_t> block(static_cast<std::size_t>(state.range(0)), 0x5A);
    const auto size = static_cast<std::int32_t>(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        buffer.Write(block.data(), size);
        benchmark::DoNotOptimize(buffer.Read(block.data(), size));
    }
    CountBytes(state, state.range(0));
}
BENCHMARK(CircularBufferBlock)->Arg(25)->Arg(253)->Arg(3000);

}  // namespace
}  // namespace vexa
