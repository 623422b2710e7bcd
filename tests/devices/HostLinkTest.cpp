#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "devices/HostLink.h"
#include "foundation/GUtils.h"
#include "support/System.h"

namespace vexa {
namespace {

using namespace test;

class HostLink : public testing::Test {
  protected:
    HostLink() { HostLink_Use(&state); }
    ~HostLink() override {
        HostLink_Close();
        HostLink_Use(nullptr);
    }

    ScriptedNode node;
    HostLinkState state;
};

TEST_F(HostLink, IsDeadBeforeOpenAndAfterClose) {
    const auto expectDead = [] {
        const unsigned char byte = 1;
        EXPECT_EQ(HostLink_Write(&byte, 1) + HostLink_WriteByte(1), 0);
        EXPECT_EQ(HostLink_BytesAvailable() + HostLink_ReadByte(), 0);
        EXPECT_TRUE(HostLink_Input().empty());
        HostLink_TakeBytes(0);
        EXPECT_EQ(HostLink_IsOpen() + HostLink_IsLinkUp(), 0);
        EXPECT_EQ(HostLink_Purge(), 1);
    };
    expectDead();
    node.present = false;
    EXPECT_FALSE(HostLink_Open() == 1 || HostLink_IsOpen() == 1);
    HostLink_Close();
    node.present = true;
    EXPECT_TRUE(HostLink_Open() == 1 && HostLink_IsOpen() == 1);
    HostLink_Close();
    expectDead();
    HostLink_Use(nullptr);
    expectDead();
    EXPECT_EQ(HostLink_Open(), 0);
}

TEST_F(HostLink, CarriesBytesBothWays) {
    ASSERT_TRUE(HostLink_Open() == 1 && HostLink_IsLinkUp() == 1);
    node.host.Send(Hex("01 02 03"));
    while (state.inputBuffer->GetBytesAvailable() < 3) OSSleep(1);

    const Bytes block(10000, 0x5A);
    EXPECT_EQ(HostLink_Write(block.data(), 300), 44) << "the low 8 bits of the count";
    EXPECT_EQ(node.host.Receive(308).size(), 308U);
    EXPECT_EQ(HostLink_WriteByte(0x41), 1);
    EXPECT_EQ(ToHex(node.host.Receive(9)), "01 00 00 00 55 30 31 32 41");

    EXPECT_EQ(HostDeviceReadCallback(block.data(), 300, nullptr), 0);
    EXPECT_EQ(HostDeviceReadCallback(block.data(), 300, state.inputBuffer.get()), 300);
    HostLink_TakeInput();
    EXPECT_EQ(HostLink_BytesAvailable(), 303);
    EXPECT_EQ(HostLink_ReadByte(), 0x01);
    HostDeviceReadCallback(block.data(), 10000, state.inputBuffer.get());
    HostLink_TakeInput();
    EXPECT_EQ(HostLink_BytesAvailable(), 9999) << "as far as there is room";
    EXPECT_EQ(state.inputBuffer->GetBytesAvailable(), 303);
}

// Library threads go on sending while the link is closed.
TEST_F(HostLink, ClosesUnderWritersOfOtherThreads) {
    const VirtualTime time(VirtualTime::kUnhurried);
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(HostLink_Open(), 1);
        std::atomic<bool> stop{false};
        std::atomic<int> queued{0};
        const auto writer = [&] {
            while (!stop) queued += HostLink_WriteByte(1);
        };
        std::thread first(writer);
        std::thread second(writer);
        while (queued < 20) OSSleep(1);
        HostLink_Close();
        EXPECT_EQ(HostLink_WriteByte(1), 0);
        stop = true;
        first.join();
        second.join();
    }
}

}  // namespace
}  // namespace vexa
