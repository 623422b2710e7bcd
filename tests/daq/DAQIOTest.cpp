// The link to the board, as far as tests/model does not show it: there the board always answers.

#include "mux/MuxTest.h"
#include "support/System.h"

namespace vexa {
namespace {

using namespace test;

using DaqLink = MuxTest;

TEST_F(DaqLink, OpensOnlyOnTheRightAnswer) {
    const Bytes packet = Sealed(Hex("a0 05 01 00 11"));
    // Noise and near misses before it, the first packet after it in the same block.
    Bytes before(300, 0xA1);
    for (const std::size_t position : {0U, 1U, 3U, 4U, 5U, 6U, 25U}) {
        Bytes wrong = DaqSyncAnswer();
        wrong[position] ^= 0x40U;
        const bool canBeSealed = position != kLengthOffset && position != kChecksumOffset;
        before = before + (canBeSealed ? Sealed(wrong) : wrong);
    }
    script.daqAnswer = before + DaqSyncAnswer() + packet;
    EXPECT_TRUE(daq.Open());
    EXPECT_EQ(link.Take(), ToHex(packet));
    daq.Close();

    const VirtualTime time;
    script.daqAnswer = SyncAnswer(0, 78);
    EXPECT_EQ(Traced([&] { EXPECT_FALSE(daq.Open()); }),
              "DAQIO(110) : DAQ failed to reply to initial sync VEXA_CMD_ID_INIT.\n");
    EXPECT_EQ(VirtualTime::TakeSleeps(), std::vector<std::int64_t>(51, 10000)) << "500 ms and one";
    EXPECT_TRUE(script.streams.empty()) << "closed again";
}

TEST_F(DaqLink, ReportsWhatItWrote) {
    const Bytes packet(10, 1);
    EXPECT_EQ(daq.Write(packet.data(), 10), 0) << "closed";
    ASSERT_TRUE(daq.Open() && daq.Open());
    EXPECT_EQ(script.streams.size(), 1U);
    EXPECT_EQ(daq.Write(packet.data(), 10), 10);
    script.writesSucceed = false;
    EXPECT_EQ(daq.Write(packet.data(), 10), 0);

    EXPECT_EQ(DAQIO::ReadCallback(packet.data(), 0, &daq), 0);
    EXPECT_EQ(DAQIO::ReadCallback(packet.data(), 3, nullptr), 0);
    EXPECT_EQ(Printed([&] {
                  DAQIO::DumpInput(packet.data(), 2, "x");
                  DAQIO::DumpOutput(packet.data(), -1, "y");
              }),
              "DAQ Input - x: 01 01\nDAQ Output - y:\n");
}

}  // namespace
}  // namespace vexa
