#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "devices/GDeviceIO.h"
#include "support/Output.h"
#include "support/System.h"
#include "support/TransportEnds.h"

namespace vexa {
namespace {

using namespace test;

// A transport that collects what it is asked to send.
class CollectingDevice : public GDeviceIO {
  public:
    using GDeviceIO::GDeviceIO;
    ~CollectingDevice() override {
        if (isOpen) GDeviceIO::Close();
    }
    int OSOpen(const GPortRef* /*port*/) override { return openResult; }
    int OSClose() override { return closeResult; }
    int OSWrite(const void* /*data*/, int* count) override {
        direct += *count;
        return 0;
    }
    int OSWriteUnlocked(const void* data, int* count) override {
        if (blocks) {
            pause();  // until a signal comes
            blocks = false;
        }
        largest = std::max(largest, *count);
        return ReceivedBytes::Callback(static_cast<const unsigned char*>(data), *count, &sent);
    }
    int UpdateLinkStatus() override {
        linkUp = link.load();
        ++polls;
        return 0;
    }

    int openResult = 0;
    int closeResult = 0;
    int direct = 0;
    std::atomic<bool> link{true};
    std::atomic<bool> blocks{false};
    std::atomic<int> polls{0};
    ReceivedBytes sent;
    int largest = 0;  // the writer's; read once it has ended
};

const GPortRef kPort(2, "\\where\\", "", "what", 0, 0);

int Queue(GDeviceIO& device, const Bytes& bytes) {
    int count = static_cast<int>(bytes.size());
    return device.QueueWrite(bytes.data(), &count);
}

// Queues bytes of which no two blocks are alike.
Bytes QueueMany(GDeviceIO& device, std::size_t size, std::size_t blockSize) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i + i / 251);
    for (auto at = bytes.begin(); at != bytes.end(); at += static_cast<long>(blockSize)) {
        EXPECT_EQ(Queue(device, Bytes(at, at + static_cast<long>(blockSize))), 0);
    }
    return bytes;
}

class DeviceIO : public testing::Test {
  protected:
    VirtualTime time;
    CollectingDevice device{&kPort};
};

TEST_F(DeviceIO, KeepsItsStateInStepWithTheTransport) {
    device.openResult = 7;
    EXPECT_EQ(device.Open(nullptr), 7);
    EXPECT_FALSE(device.isOpen);
    device.openResult = 0;
    EXPECT_EQ(device.Open(nullptr), 0);
    device.closeResult = -1;
    EXPECT_EQ(device.Close(), -1);
    EXPECT_TRUE(device.isOpen) << "as long as the transport could not close";
    device.closeResult = 0;
    EXPECT_EQ(device.Close(), 0);
    EXPECT_FALSE(device.isOpen);

    GDeviceIO base(&kPort);
    int count = 3;
    EXPECT_EQ(base.Open(&kPort), 0);
    EXPECT_TRUE(base.isOpen && base.IsServer());
    EXPECT_EQ(base.Query() + base.Read(1, 2, 3) + base.Write("abc", &count), 0);
    EXPECT_EQ(base.OSWriteUnlocked("abc", &count) + base.Purge(), -2);
    EXPECT_EQ(base.reserved, 2000);
    EXPECT_EQ(Printed([] { GDeviceIO without(nullptr); }), "GDeviceIO Line: 24\n");
}

// Another thread, and the owner of a device whose mutex could not be locked when it was made.
TEST_F(DeviceIO, RefusesWithoutItsMutexButReportsSuccess) {
    const auto expectRefusals = [](CollectingDevice& each) {
        int count = 3;
        EXPECT_EQ(Printed([&] {
                      for (const int result :
                           {each.Open(nullptr), each.Write("abc", &count), each.WriteString("abc"),
                            each.Query(), each.Read(1, 2, 3), each.Purge(), each.Close()}) {
                          EXPECT_EQ(result, 0);
                      }
                  }),
                  "GDeviceIO Line: 282\nGDeviceIO Line: 378\nGDeviceIO Line: 139\n"
                  "GDeviceIO Line: 336\nGDeviceIO Line: 352\nGDeviceIO Line: 397\n"
                  "GDeviceIO Line: 320\n");
        EXPECT_FALSE(each.isOpen);
        EXPECT_EQ(each.direct, 0);
    };
    std::thread([&] { expectRefusals(device); }).join();
    failing.mutexInit = 1;
    CollectingDevice without(&kPort);
    expectRefusals(without);
    CollectingDevice notHeld(&kPort);
    notHeld.mutexHeld = false;
    expectRefusals(notHeld);
    for (int level = 0; level < 7; ++level) {
        EXPECT_TRUE(OSUnlockMutex(notHeld.deviceMutex.get())) << "each refusal kept its level";
    }
    notHeld.mutexHeld = true;
}

TEST_F(DeviceIO, QueuesOnlyWithABufferAndWritesDirectlyWithoutBuffering) {
    EXPECT_EQ(Queue(device, {1, 2}), 0);
    EXPECT_EQ(device.WriteString("abc"), 0);
    EXPECT_EQ(device.direct, 5);
    device.bufferedOutput = true;
    EXPECT_EQ(Queue(device, {1, 2}), -1) << "not open yet";
    int count = 4;
    EXPECT_EQ(device.Write("abcd", &count), 0);
    EXPECT_EQ(device.direct, 9) << "Write goes directly to the transport then";
    device.link = false;
    ASSERT_EQ(device.Open(nullptr), 0);
    EXPECT_EQ(device.Write("abcd", &count), 0);
    EXPECT_EQ(device.direct, 9) << "queued from now on";
    ASSERT_TRUE(OSLockMutex(device.outputLock->mutex.get(), 1));
    std::thread([&] { EXPECT_EQ(Queue(device, {1}), -1) << "without the buffer's guard"; }).join();
    OSUnlockMutex(device.outputLock->mutex.get());
    device.bufferedOutput = false;
    EXPECT_EQ(Queue(device, {1}), -1) << "a buffer is still there";
}

TEST_F(DeviceIO, DoesNotOpenWithoutWhatItsWriterNeeds) {
    for (const auto& [signalled, call] : {std::pair{false, &failing.mutexInit},
                                          {false, &failing.threadCreate},
                                          {true, &failing.mutexInit},
                                          {true, &failing.semaphoreInit},
                                          {true, &failing.threadCreate}}) {
        CollectingDevice each(&kPort);
        each.bufferedOutput = true;
        each.signalledWriter = signalled;
        *call = 1;
        EXPECT_EQ(each.Open(nullptr), -1);
        EXPECT_FALSE(each.isOpen);
        EXPECT_EQ(*call, 0);
    }
}

TEST_F(DeviceIO, PollingWriterHoldsOutputBackUntilTheLinkIsUp) {
    device.bufferedOutput = true;
    device.link = false;
    ASSERT_EQ(device.Open(nullptr), 0);
    const Bytes bytes = QueueMany(device, 60000, 250);
    const int polls = device.polls;
    while (device.polls < polls + 3) OSSleep(1);
    EXPECT_TRUE(device.sent.Await(0).empty());
    device.link = true;
    EXPECT_EQ(device.sent.Await(50000), Bytes(bytes.end() - 50000, bytes.end()));
    device.link = false;
    while (device.linkUp) OSSleep(1);
    Queue(device, {7});
    device.Purge();
    Queue(device, {8});
    device.link = true;
    EXPECT_EQ(device.sent.Await(50001).back(), 8) << "the other one was purged";
    ASSERT_EQ(device.Close(), 0);
    EXPECT_EQ(device.largest, 10000);
}

TEST_F(DeviceIO, ClosesAlthoughAWriterIsInABlockingCall) {
    for (const bool signalled : {false, true}) {
        device.bufferedOutput = true;
        device.signalledWriter = signalled;
        device.blocks = true;
        ASSERT_EQ(device.Open(nullptr), 0);
        Queue(device, {1});
        while (device.outputBuffer->GetBytesAvailable() > 0) OSSleep(1);
        EXPECT_EQ(device.Close(), 0);
        EXPECT_FALSE(device.blocks);
    }
}

TEST_F(DeviceIO, SignalledWriterSendsAtOnceAndEndsWithTheDevice) {
    device.bufferedOutput = true;
    device.signalledWriter = true;
    ASSERT_EQ(device.Open(nullptr), 0);
    const Bytes bytes = QueueMany(device, 40000, 20000);
    EXPECT_EQ(device.sent.Await(40000), bytes);
    ASSERT_EQ(device.Close(), 0);
    EXPECT_EQ(device.largest, 5000);
    EXPECT_FALSE(device.bufferedOutput) << "cleared by stopping the writer";
}

}  // namespace
}  // namespace vexa
