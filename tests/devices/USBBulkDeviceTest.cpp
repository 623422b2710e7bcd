#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>

#include "devices/GServerUSBBulkDevice.h"
#include "support/Output.h"
#include "support/System.h"
#include "support/TransportEnds.h"

namespace vexa {
namespace {

using namespace test;

class USBBulkDevice : public testing::Test {
  protected:
    USBBulkDevice() { device.SetReadCallback(ReceivedBytes::Callback, &received); }

    // A line that the transport traces.
    static std::string Line(int number, const std::string& text) {
        return "GServerUSBBulkDevice_Linux(" + std::to_string(number) + ") : " + text + "\n";
    }
    int WriteFrame(const Bytes& payload, int& count) {
        count = static_cast<int>(payload.size());
        return device.OSWriteUnlocked(payload.data(), &count);
    }
    int Write(int& count) {
        count = 3;
        return device.OSWrite("abc", &count);
    }

    const std::string pluggedIn = Line(490, "USB gadget cable is plugged in.");
    ScriptedNode node;
    ReceivedBytes received;
    GPortRef port = GServerUSBBulkDevice::EnumeratePorts(GPortRef::kHostPort).at(0);
    GServerUSBBulkDevice device{&port};
};

TEST_F(USBBulkDevice, OpensTheOnePortOfItsKind) {
    EXPECT_TRUE(GServerUSBBulkDevice::EnumeratePorts(2).empty());
    EXPECT_EQ(port.portType, 2);
    EXPECT_EQ(port.location + "," + port.displayName, "/dev/zt-usb,/dev/zt-usb");
    EXPECT_EQ(Traced([&] { EXPECT_EQ(device.Open(nullptr), 0); }), pluggedIn);
    EXPECT_EQ(node.openFlags, 0x82);
    device.Close();

    const std::string line = Line(312, "Error opening device with id /dev/zt-usb");
    node.present = false;
    EXPECT_EQ(Traced([&] { EXPECT_EQ(device.Open(nullptr), -1); }), line);
    node.present = true;
    device.SetReadCallback(ReceivedBytes::Callback, nullptr);
    EXPECT_EQ(Traced([&] { EXPECT_EQ(device.Open(nullptr), -1); }), line) << "no context";
}

TEST_F(USBBulkDevice, ReadsUntilClosedAndOnlyOnce) {
    ASSERT_EQ(device.Open(nullptr), 0);
    const Bytes bytes = Hex("00 03 11 13 ff") + Bytes(9000, 0x41);
    node.host.Send(bytes);
    EXPECT_EQ(received.Await(bytes.size()), bytes);
    EXPECT_EQ(Traced([&] { EXPECT_EQ(device.Close(), 0); }), "") << "a blocked reader ends";

    const std::size_t threads = ThreadCount();
    EXPECT_EQ(device.Open(nullptr), 0);
    node.host.Send({1});
    while (ThreadCount() > threads && received.Await(0) == bytes) OSSleep(1);
    EXPECT_EQ(received.Await(0), bytes) << "opened again it does not read";
    EXPECT_EQ(device.Close(), 0);
}

TEST_F(USBBulkDevice, FramesWhatTheWriterSends) {
    ASSERT_EQ(device.Open(nullptr), 0);
    int count = 0;
    EXPECT_EQ(WriteFrame({1, 2, 3, 4, 5}, count), 0);
    EXPECT_EQ(count, 5);
    EXPECT_EQ(ToHex(node.host.Receive(13)), "05 00 00 00 55 30 31 32 01 02 03 04 05");
    EXPECT_EQ(WriteFrame(Bytes(30000, 7), count), 0);
    EXPECT_EQ(node.host.Receive(30008), Hex("30 75 00 00 55 30 31 32") + Bytes(30000, 7));
    EXPECT_EQ(WriteFrame({}, count), 0);
    EXPECT_EQ(WriteFrame(Bytes(30001, 7), count), -1);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(Write(count), 0) << "the locked way, without a header";
    EXPECT_EQ(ToHex(node.host.Receive(3)), "61 62 63") << "and nothing before it";
}

TEST_F(USBBulkDevice, ReportsFailedWrites) {
    ASSERT_EQ(device.Open(nullptr), 0);
    int count = 0;
    for (const auto& [call, nth] : {std::pair{&failing.write, 1},
                                    {&failing.write, 2},
                                    {&failing.shortWrite, 1},
                                    {&failing.shortWrite, 2}}) {
        *call = nth;
        const bool payloadFails = call == &failing.write && nth == 2;
        EXPECT_EQ(Traced([&] {
                      EXPECT_EQ(WriteFrame({1, 2, 3}, count), -1);
                  }),
                  payloadFails ? Line(431, "USB write failed. errno = 5") : "");
        EXPECT_EQ(count, 0);
    }
    failing.shortWrite = 1;
    EXPECT_EQ(Write(count), -1);
    EXPECT_EQ(count, 2);
    failing.write = 1;
    EXPECT_EQ(Write(count), -1);
    EXPECT_EQ(count, -1);
    device.Close();
    EXPECT_EQ(Write(count), -1);
    EXPECT_EQ(count, 3) << "untouched without a node";
}

TEST_F(USBBulkDevice, QueriesTheCableAtMostEveryHalfSecond) {
    const VirtualTime time(VirtualTime::kUnhurried);
    node.pluggedIn = 0;
    EXPECT_EQ(Traced([&] { EXPECT_EQ(device.Open(nullptr), 0); }), "");
    EXPECT_FALSE(device.linkUp);
    EXPECT_EQ(node.queries, 1);
    node.pluggedIn = 1;
    VirtualTime::Advance(500);
    EXPECT_EQ(device.UpdateLinkStatus(), 0);
    EXPECT_EQ(node.queries, 1);

    const auto afterHalfASecond = [&](int result) {
        return Traced([&] {
            VirtualTime::Advance(501);
            EXPECT_EQ(device.UpdateLinkStatus(), result);
            EXPECT_EQ(device.UpdateLinkStatus(), 0) << "no second query, also after a failure";
        });
    };
    EXPECT_EQ(afterHalfASecond(0), pluggedIn);
    EXPECT_TRUE(device.linkUp);
    EXPECT_EQ(afterHalfASecond(0), "") << "nothing changed";
    node.queryFails = true;
    EXPECT_EQ(afterHalfASecond(-1), Line(482, "ioctl(ZTG_LINK_STATUS) failed. errno = 25"));
    EXPECT_TRUE(device.linkUp) << "it keeps its value";
    node.queryFails = false;
    node.pluggedIn = 0;
    EXPECT_EQ(afterHalfASecond(0), Line(490, "USB gadget cable is unplugged."));
    EXPECT_EQ(node.queries, 5);
    device.Close();
    EXPECT_EQ(device.UpdateLinkStatus(), -1);
}

// What every transport does the same: refuse without its mutex, and stay open without a reader.
TEST_F(USBBulkDevice, RefusesOtherThreadsAndOpensWithoutAReader) {
    failing.threadCreate = 1;
    ASSERT_EQ(device.Open(nullptr), 0);
    node.host.Send({1});
    const std::string noLock =
        "GThread_Linux(118) : Trying to lock mutex N on thread N in VEXA_lib failed\n";
    EXPECT_EQ(
        Traced([&] {
            std::thread([&] {
                int count = 0;
                for (const int result : {device.OSOpen(nullptr), device.OSClose(), Write(count)}) {
                    EXPECT_EQ(result, -1);
                }
                EXPECT_EQ(count, 3);
            }).join();
        }),
        noLock + noLock + "GServerUSBBulkDevice_Linux Line: 334\n" + noLock +
            "GServerUSBBulkDevice_Linux Line: 381\n");
    EXPECT_EQ(device.OSQuery() + device.OSRead(1, 2, 3) + device.OSPurge(), -2);
    EXPECT_EQ(device.Close(), 0);
    EXPECT_TRUE(received.Await(0).empty());
}

TEST_F(USBBulkDevice, ClosesAlthoughTheHostReadsNothing) {
    const VirtualTime time(VirtualTime::kUnhurried);
    const Bytes filling(4096);
    while (send(node.nodeEnd.Get(), filling.data(), filling.size(), MSG_DONTWAIT) > 0) {
    }
    device.bufferedOutput = true;
    ASSERT_EQ(device.Open(nullptr), 0);
    int count = 5000;
    ASSERT_EQ(device.QueueWrite(Bytes(5000).data(), &count), 0);
    while (device.outputBuffer->GetBytesAvailable() > 0) OSSleep(1);  // the writer has them
    VirtualTime::TakeSleeps();
    EXPECT_EQ(device.Close(), 0);
    EXPECT_GE(VirtualTime::TakeSleeps().size(), 200U) << "2 s for a write in progress";
}

// The abort signal may come between the reader's check of its stop flag and its read.
TEST_F(USBBulkDevice, NeverLosesTheReadersWakeUp) {
    const VirtualTime time(VirtualTime::kUnhurried);
    signalBeforeRead = true;
    ASSERT_EQ(device.Open(nullptr), 0);
    while (signalBeforeRead) OSSleep(1);
    EXPECT_EQ(device.Close(), 0);
}

}  // namespace
}  // namespace vexa
