#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "devices/GDeviceIO.h"
#include "foundation/GUtils.h"
#include "support/Output.h"
#include "support/System.h"

namespace vexa {
namespace {

using namespace test;

// A transport that notes what it is asked to send.
class NotingDevice : public GDeviceIO {
  public:
    using GDeviceIO::GDeviceIO;
    ~NotingDevice() override {
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
        const std::scoped_lock lock(mutex);
        const auto* bytes = static_cast<const unsigned char*>(data);
        sent.insert(sent.end(), bytes, bytes + *count);
        largest = std::max(largest, *count);
        return 0;
    }
    int UpdateLinkStatus() override {
        linkUp = link.load();
        ++polls;
        return 0;
    }
    // What was sent, once it is `count` bytes.
    Bytes AwaitSent(std::size_t count) {
        for (;; OSSleep(1)) {
            const std::scoped_lock lock(mutex);
            if (sent.size() >= count) return sent;
        }
    }

    int openResult = 0;
    int closeResult = 0;
    int direct = 0;
    std::atomic<bool> link{true};
    std::atomic<bool> blocks{false};
    std::atomic<int> polls{0};
    std::mutex mutex;
    Bytes sent;
    int largest = 0;
};

const GPortRef kPort(2, "\\where\\", "", "what", 0, 0);

int Queue(GDeviceIO& device, const Bytes& bytes) {
    int count = static_cast<int>(bytes.size());
    return device.QueueWrite(bytes.data(), &count);
}

// Bytes of which no two blocks are alike.
Bytes Counting(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i + i / 251);
    return bytes;
}

class DeviceIO : public testing::Test {
  protected:
    VirtualTime time;
    NotingDevice device{&kPort};
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
    EXPECT_EQ(base.OSWriteUnlocked("abc", &count), -1);
    EXPECT_EQ(base.Purge(), -1);
    EXPECT_EQ(base.reserved, 2000);
    EXPECT_EQ(Printed([] { GDeviceIO without(nullptr); }), "GDeviceIO Line: 24\n");
}

// Another thread, and the owner of a device whose mutex could not be locked when it was made.
TEST_F(DeviceIO, RefusesWithoutItsMutexButReportsSuccess) {
    SetTraceThreshold(100);
    const auto refusals = [](NotingDevice& each) {
        int count = 3;
        return Printed([&] {
            EXPECT_EQ(each.Open(nullptr), 0);
            EXPECT_EQ(each.Write("abc", &count), 0);
            EXPECT_EQ(each.WriteString("abc"), 0);
            EXPECT_EQ(each.Query(), 0);
            EXPECT_EQ(each.Read(1, 2, 3), 0);
            EXPECT_EQ(each.Purge(), 0);
            EXPECT_EQ(each.Close(), 0);
            EXPECT_FALSE(each.isOpen);
            EXPECT_EQ(each.direct, 0);
        });
    };
    const std::string lines =
        "GDeviceIO Line: 282\nGDeviceIO Line: 378\nGDeviceIO Line: 139\nGDeviceIO Line: 336\n"
        "GDeviceIO Line: 352\nGDeviceIO Line: 397\nGDeviceIO Line: 320\n";
    std::string text;
    std::thread([&] { text = refusals(device); }).join();
    EXPECT_EQ(text, lines);
    failing.mutexInit = 1;
    NotingDevice without(&kPort);
    EXPECT_EQ(refusals(without), lines);
    NotingDevice notHeld(&kPort);
    notHeld.mutexHeld = false;
    EXPECT_EQ(refusals(notHeld), lines);
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
    int queued = 0;
    std::thread([&] { queued = Queue(device, {1}); }).join();
    EXPECT_EQ(queued, -1) << "without the buffer's guard";
    OSUnlockMutex(device.outputLock->mutex.get());
    device.bufferedOutput = false;
    EXPECT_EQ(Queue(device, {1}), -1) << "a buffer is still there";
}

TEST_F(DeviceIO, OpensNotWithoutWhatItsWriterNeeds) {
    for (const bool signalled : {false, true}) {
        for (std::atomic<int>* const call :
             {&failing.mutexInit, &failing.semaphoreInit, &failing.threadCreate}) {
            if (!signalled && call == &failing.semaphoreInit) continue;
            NotingDevice each(&kPort);
            each.bufferedOutput = true;
            each.signalledWriter = signalled;
            *call = 1;
            EXPECT_EQ(each.Open(nullptr), -1);
            EXPECT_FALSE(each.isOpen);
            EXPECT_EQ(*call, 0);
        }
    }
}

TEST_F(DeviceIO, PollingWriterHoldsOutputBackUntilTheLinkIsUp) {
    device.bufferedOutput = true;
    device.link = false;
    ASSERT_EQ(device.Open(nullptr), 0);
    const Bytes bytes = Counting(60000);
    for (auto block = bytes.begin(); block != bytes.end(); block += 250) {
        ASSERT_EQ(Queue(device, Bytes(block, block + 250)), 0);
    }
    const int polls = device.polls;
    while (device.polls < polls + 3) OSSleep(1);
    EXPECT_EQ(device.AwaitSent(0).size(), 0U);
    device.link = true;
    EXPECT_EQ(device.AwaitSent(50000), Bytes(bytes.end() - 50000, bytes.end()));
    EXPECT_EQ(device.largest, 10000);
    ASSERT_EQ(device.Close(), 0);

    device.link = false;
    device.sent.clear();
    ASSERT_EQ(device.Open(nullptr), 0);
    Queue(device, {1, 2, 3});
    device.Purge();
    Queue(device, {4});
    device.link = true;
    EXPECT_EQ(device.AwaitSent(1), Bytes{4}) << "purged";
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
    const Bytes bytes = Counting(40000);
    for (auto block = bytes.begin(); block != bytes.end(); block += 20000) {
        ASSERT_EQ(Queue(device, Bytes(block, block + 20000)), 0);
    }
    EXPECT_EQ(device.AwaitSent(40000), bytes);
    ASSERT_EQ(device.Close(), 0);
    EXPECT_EQ(device.largest, 5000);
    EXPECT_FALSE(device.bufferedOutput) << "cleared by stopping the writer";
}

}  // namespace
}  // namespace vexa
