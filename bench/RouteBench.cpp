// The way through the multiplexer: a packet from the host to a child whose write does nothing, and
// a child's block into the queue to the host.
#include "HostStream.h"
#include "IdleLibraries.h"
#include "mux/HostMux.h"
#include "protocol/Packet.h"

namespace vexa::bench {
namespace {

constexpr std::uint32_t kChildId = 1;

// With the controller open and one child.
class OpenMux {
  public:
    OpenMux() {
        mux.Init();
        mux.MarkConnected();
        for (const auto& packet : {test::OpenController(false), test::OpenChild(kChildId, "s")}) {
            link.HostSends(packet);
            mux.Pass();
        }
        link.TakeBytes();
    }

    test::QueuedHostLink link;
    const std::uint32_t library = 1;
    DAQIO daq{library};
    AppSessions sessions;
    HostMux mux{library, daq, sessions};
};

void ParseAndRoute(benchmark::State& state) {
    OpenMux open;
    const test::Bytes payload(static_cast<std::size_t>(state.range(0)) - kTunnelHeaderSize, 0x33);
    const test::Bytes packet = test::Tunnel(kChildId, payload);
    test::Bytes bytes;
    std::size_t packets = 0;
    for (; bytes.size() + packet.size() < kHostBufferSize; ++packets) {
        bytes.insert(bytes.end(), packet.begin(), packet.end());
    }
    for ([[maybe_unused]] auto _ : state) {
        open.link.HostSends(bytes);
        while (HostLink_BytesAvailable() != 0) open.mux.Pass();
    }
    CountPackets(state, packets, bytes.size());
}
BENCHMARK(ParseAndRoute)->Arg(25)->Arg(253);

// The read callback of a child: tunnel packet built, sealed and queued. The buffer is taken from
// when it is half full, outside the time.
void BuildAndQueue(benchmark::State& state) {
    OpenMux open;
    const test::Bytes block(static_cast<std::size_t>(state.range(0)), 0x33);
    const auto count = static_cast<std::int32_t>(block.size());
    const OpenedStream stream = LastStream();
    constexpr std::size_t kPackets = 100;
    for ([[maybe_unused]] auto _ : state) {
        for (std::size_t i = 0; i < kPackets; ++i) {
            stream.callback(block.data(), count, stream.context);
        }
        open.link.Device().outputBuffer->Clear();
    }
    CountPackets(state, kPackets, kPackets * block.size());
}
BENCHMARK(BuildAndQueue)->Arg(17)->Arg(245);

}  // namespace
}  // namespace vexa::bench
