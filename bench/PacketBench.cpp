// The parser: the host's bytes in, packets out.
#include "HostStream.h"
#include "mux/HostPacketStream.h"
#include "protocol/Packet.h"

namespace vexa::bench {
namespace {

void ParseAll(benchmark::State& state, const HostPackets& sent) {
    test::QueuedHostLink link;
    HostPacketStream stream;
    for ([[maybe_unused]] auto _ : state) {
        for (const auto& piece : sent.pieces) {
            link.HostSends(piece);
            while (HostLink_BytesAvailable() != 0) {
                stream.ParsePass();
                if (stream.HasPacket()) stream.Release();
            }
        }
    }
    CountPackets(state, sent.packets, sent.bytes);
}

void Parse(benchmark::State& state, std::size_t badEvery) {
    ParseAll(state, Packets(static_cast<std::size_t>(state.range(0)), badEvery));
}
BENCHMARK_CAPTURE(Parse, good, 0)->Arg(8)->Arg(25)->Arg(64)->Arg(255);
BENCHMARK_CAPTURE(Parse, one_in_100_bad, 100)->Arg(8)->Arg(25)->Arg(64)->Arg(255);

// Good packets whose payload is the initial sync's last byte throughout.
void ParseFullOf0x41(benchmark::State& state) {
    test::Bytes packet(253, 0x41);
    packet[kTypeOffset] = 0x80;
    packet[kLengthOffset] = 253;
    SealPacket(packet);
    HostPackets sent;
    for (test::Bytes& piece = sent.pieces.emplace_back();
         piece.size() + packet.size() < kHostBufferSize; ++sent.packets) {
        piece.insert(piece.end(), packet.begin(), packet.end());
    }
    sent.bytes = sent.pieces.front().size();
    ParseAll(state, sent);
}
BENCHMARK(ParseFullOf0x41);

}  // namespace
}  // namespace vexa::bench
