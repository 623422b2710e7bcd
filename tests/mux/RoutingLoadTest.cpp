// Nothing is allocated per packet, in either direction: this program counts every use of operator
// new, and the code under test calls no other allocator.

#include <atomic>
#include <cstdlib>
#include <new>

#include "mux/MuxTest.h"

namespace {
std::atomic<long> allocations{0};
}

// Not inlined: the compiler would complain of new and free that do not match.
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

namespace vexa {
namespace {

using namespace test;

TEST_F(MuxTest, AllocatesNothingPerPacket) {
    constexpr int kPackets = 100000;
    Reply(OpenController(true));
    const std::uint32_t stream = Open(1, "stream8");
    const auto sensor = script.streams[stream];
    const auto board = script.streams[stream - 1];
    script.recordWrites = false;
    script.daqAnswer.clear();
    const Bytes toSensor = Tunnel(1, Hex("40 06 01 47 aa bb"));
    const Bytes toBoard = Sealed(Hex("40 06 01 00 33 44"));
    const Bytes block(17, 0x33);
    const Bytes packet = Sealed(Hex("a0 06 01 00 33 44"));
    Bytes sent(50000);

    const long before = allocations;
    long received = 0;
    for (int i = 0; i < kPackets; ++i) {
        link.HostSends(i % 2 == 0 ? toSensor : toBoard);
        mux.Pass();
        if (i % 2 == 0) {
            sensor.callback(block.data(), static_cast<int>(block.size()), sensor.context);
        } else {
            board.callback(packet.data(), static_cast<int>(packet.size()), board.context);
        }
        received += link.Device().outputBuffer->Read(sent.data(), 50000);
    }
    EXPECT_EQ(allocations - before, 0);
    EXPECT_EQ(received, kPackets / 2 * (17 + 8) + kPackets / 2 * 6) << "every packet came through";
}

}  // namespace
}  // namespace vexa
