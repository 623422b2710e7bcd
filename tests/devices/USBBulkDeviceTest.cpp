#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "devices/GServerUSBBulkDevice.h"
#include "foundation/GUtils.h"
#include "support/Output.h"
#include "support/ReceivedBytes.h"
#include "support/System.h"

namespace vexa {
namespace {

using namespace test;

class USBBulkDevice : public testing::Test {
  protected:
    USBBulkDevice() {
        SetTraceThreshold(1);
        device.SetReadCallback(ReceivedBytes::Callback, &received);
    }
    ~USBBulkDevice() override { SetTraceThreshold(100); }

    // The lines that `code` traces.
    static std::string Lines(const std::function<void()>& code) {
        std::string text = Printed(code);
        constexpr std::string_view kModule = "GServerUSBBulkDevice_Linux";
        if (text.starts_with(kModule)) text.replace(0, kModule.size(), "USB");
        return text;
    }
    void Open() {
        ASSERT_EQ(Lines([&] { EXPECT_EQ(device.Open(nullptr), 0); }),
                  node.pluggedIn != 0 ? "USB(490) : USB gadget cable is plugged in.\n" : "");
    }
    int WriteFrame(const Bytes& payload, int& count) {
        count = static_cast<int>(payload.size());
        return device.OSWriteUnlocked(payload.data(), &count);
    }

    ScriptedNode node;
    ReceivedBytes received;
    GPortRef port = GServerUSBBulkDevice::EnumeratePorts(GPortRef::kHostPort).at(0);
    GServerUSBBulkDevice device{&port};
};

TEST_F(USBBulkDevice, IsTheOnePortOfItsKind) {
    EXPECT_TRUE(GServerUSBBulkDevice::EnumeratePorts(2).empty());
    EXPECT_EQ(port.portType, 2);
    EXPECT_EQ(port.location + "," + port.displayName, "/dev/zt-usb,/dev/zt-usb");
}

TEST_F(USBBulkDevice, FailsToOpenWithALine) {
    const std::string line = "USB(312) : Error opening device with id /dev/zt-usb\n";
    node.present = false;
    EXPECT_EQ(Lines([&] { EXPECT_EQ(device.Open(nullptr), -1); }), line);
    node.present = true;
    device.SetReadCallback(ReceivedBytes::Callback, nullptr);
    EXPECT_EQ(Lines([&] { EXPECT_EQ(device.Open(nullptr), -1); }), line) << "no context";
}

TEST_F(USBBulkDevice, ReadsUntilClosedAndOnlyOnce) {
    Open();
    EXPECT_EQ(node.openFlags, 0x82);
    const Bytes bytes = Hex("00 03 11 13 ff") + Bytes(9000, 0x41);
    node.HostSends(bytes);
    EXPECT_EQ(received.Await(bytes.size()), bytes);
    EXPECT_EQ(Lines([&] { EXPECT_EQ(device.Close(), 0); }), "") << "a blocked reader ends";

    const std::size_t threads = ThreadCount();
    EXPECT_EQ(device.Open(nullptr), 0);
    node.HostSends({1});
    while (ThreadCount() > threads && received.Await(0) == bytes) OSSleep(1);
    EXPECT_EQ(received.Await(0), bytes) << "opened again it does not read";
    EXPECT_EQ(device.Close(), 0);
}

TEST_F(USBBulkDevice, FramesWhatTheWriterSends) {
    Open();
    int count = 0;
    EXPECT_EQ(WriteFrame({1, 2, 3, 4, 5}, count), 0);
    EXPECT_EQ(count, 5);
    EXPECT_EQ(ToHex(node.HostReads(13)), "05 00 00 00 55 30 31 32 01 02 03 04 05");
    EXPECT_EQ(WriteFrame(Bytes(30000, 7), count), 0);
    EXPECT_EQ(ToHex(node.HostReads(8)), "30 75 00 00 55 30 31 32");
    EXPECT_EQ(node.HostReads(30000), Bytes(30000, 7));
    EXPECT_EQ(WriteFrame({}, count), 0);
    EXPECT_EQ(WriteFrame(Bytes(30001, 7), count), -1);
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(node.HostHasNothing());

    count = 3;
    EXPECT_EQ(device.Write("abc", &count), 0) << "the locked way, without a header";
    EXPECT_EQ(ToHex(node.HostReads(3)), "61 62 63");
}

TEST_F(USBBulkDevice, ReportsFailedWrites) {
    Open();
    int count = 0;
    for (const auto& [call, nth] : {std::pair{&failing.write, 1},
                                    {&failing.write, 2},
                                    {&failing.shortWrite, 1},
                                    {&failing.shortWrite, 2}}) {
        *call = nth;
        const std::string text = Lines([&] { EXPECT_EQ(WriteFrame({1, 2, 3}, count), -1); });
        EXPECT_EQ(count, 0);
        EXPECT_EQ(text, call == &failing.write && nth == 2
                            ? "USB(431) : USB write failed. errno = 5\n"
                            : "");
    }
    failing.shortWrite = 1;
    count = 3;
    EXPECT_EQ(device.Write("abc", &count), -1);
    EXPECT_EQ(count, 2);
    failing.write = 1;
    count = 3;
    EXPECT_EQ(device.Write("abc", &count), -1);
    EXPECT_EQ(count, -1);
    device.Close();
    count = 3;
    EXPECT_EQ(device.OSWrite("abc", &count), -1);
    EXPECT_EQ(count, 3) << "untouched without a node";
}

TEST_F(USBBulkDevice, AsksForTheCableAtMostEveryHalfSecond) {
    const VirtualTime time;
    node.pluggedIn = 0;
    Open();
    EXPECT_FALSE(device.linkUp);
    EXPECT_EQ(node.queries, 1);
    node.pluggedIn = 1;
    VirtualTime::Advance(500);
    EXPECT_EQ(device.UpdateLinkStatus(), 0);
    EXPECT_EQ(node.queries, 1);

    const auto afterHalfASecond = [&](int result) {
        return Lines([&] {
            VirtualTime::Advance(501);
            EXPECT_EQ(device.UpdateLinkStatus(), result);
            EXPECT_EQ(device.UpdateLinkStatus(), 0) << "not asked again, also after a failure";
        });
    };
    EXPECT_EQ(afterHalfASecond(0), "USB(490) : USB gadget cable is plugged in.\n");
    EXPECT_TRUE(device.linkUp);
    EXPECT_EQ(afterHalfASecond(0), "") << "nothing changed";
    node.queryFails = true;
    EXPECT_EQ(afterHalfASecond(-1), "USB(482) : ioctl(ZTG_LINK_STATUS) failed. errno = 25\n");
    EXPECT_TRUE(device.linkUp) << "it keeps its value";
    node.queryFails = false;
    node.pluggedIn = 0;
    EXPECT_EQ(afterHalfASecond(0), "USB(490) : USB gadget cable is unplugged.\n");
    EXPECT_EQ(node.queries, 5);
    device.Close();
    EXPECT_EQ(device.UpdateLinkStatus(), -1);
}

// What every transport does the same: refuse without its mutex, and stay open without a reader.
TEST_F(USBBulkDevice, RefusesOtherThreadsAndOpensWithoutAReader) {
    failing.threadCreate = 1;
    Open();
    node.HostSends({1});
    int count = 3;
    EXPECT_EQ(Printed([&] {
                  std::thread([&] {
                      SetTraceThreshold(100);  // the lock's own line has an address in it
                      EXPECT_EQ(device.OSOpen(nullptr), -1);
                      EXPECT_EQ(device.OSClose(), -1);
                      EXPECT_EQ(device.OSWrite("abc", &count), -1);
                  }).join();
              }),
              "GServerUSBBulkDevice_Linux Line: 334\nGServerUSBBulkDevice_Linux Line: 381\n");
    EXPECT_EQ(count, 3);
    EXPECT_EQ(device.OSQuery() + device.OSRead(1, 2, 3) + device.OSPurge(), -2);
    EXPECT_EQ(device.Close(), 0);
    EXPECT_TRUE(received.Await(0).empty());
}

TEST_F(USBBulkDevice, ClosesAlthoughTheHostTakesNothing) {
    const VirtualTime time;
    const Bytes filling(4096);
    while (send(node.nodeEnd, filling.data(), filling.size(), MSG_DONTWAIT) > 0) {
    }
    device.bufferedOutput = true;
    Open();
    int count = 5000;
    ASSERT_EQ(device.QueueWrite(Bytes(5000).data(), &count), 0);
    while (device.outputBuffer->GetBytesAvailable() > 0) OSSleep(1);  // the writer has them
    VirtualTime::TakeSleeps();
    EXPECT_EQ(device.Close(), 0);
    EXPECT_GE(VirtualTime::TakeSleeps().size(), 200U) << "2 s for a write in progress";
}

// The abort signal may come between the reader's look at its stop flag and its read.
TEST_F(USBBulkDevice, NeverLosesTheReadersWakeUp) {
    const VirtualTime time;
    for (int round = 0; round < 200; ++round) {
        GServerUSBBulkDevice each(&port);
        each.SetReadCallback(ReceivedBytes::Callback, &received);
        EXPECT_EQ(Printed([&] {
                      ASSERT_EQ(each.Open(nullptr), 0);
                      ASSERT_EQ(each.Close(), 0);
                  }).find("Error"),
                  std::string::npos);
    }
}

}  // namespace
}  // namespace vexa
