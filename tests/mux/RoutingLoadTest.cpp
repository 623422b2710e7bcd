// Nothing is allocated per packet, in either direction. This program counts every use of operator
// new; the code under test calls no other allocator.

#include "mux/MuxTest.h"
#include "support/CountedAllocations.h"

namespace vexa {
namespace {

using namespace test;

using RoutingLoad = MuxTest;

TEST_F(RoutingLoad, AllocatesNothingPerPacket) {
    constexpr int kPackets = 100000;
    OpenControllerFirst(true);
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

    const long before = AllocationsSoFar();
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
    EXPECT_EQ(AllocationsSoFar() - before, 0);
    EXPECT_EQ(received, kPackets / 2 * (17 + 8) + kPackets / 2 * 6) << "every packet came through";
}

}  // namespace
}  // namespace vexa
