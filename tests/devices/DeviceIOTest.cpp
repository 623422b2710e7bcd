#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "devices/GDeviceIO.h"
#include "foundation/GUtils.h"
#include "support/Bytes.h"
#include "support/Output.h"

namespace vexa {
namespace {

using test::Bytes;
using test::Printed;

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
    std::size_t Sent() {
        const std::scoped_lock lock(mutex);
        return sent.size();
    }

    int openResult = 0;
    int closeResult = 0;
    int direct = 0;
    std::atomic<bool> link{true};
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

TEST(GDeviceIO, KeepsItsStateInStepWithTheTransport) {
    NotingDevice device(&kPort);
    device.openResult = 7;
    EXPECT_EQ(device.Open(nullptr), 7);
    EXPECT_FALSE(device.isOpen);
    device.openResult = 0;
    EXPECT_EQ(device.Open(nullptr), 0);
    EXPECT_TRUE(device.isOpen);
    device.closeResult = -1;
    EXPECT_EQ(device.Close(), -1);
    EXPECT_TRUE(device.isOpen) << "as long as the transport could not close";
    device.closeResult = 0;
    EXPECT_EQ(device.Close(), 0);
    EXPECT_FALSE(device.isOpen);
    EXPECT_EQ(device.Purge(), -1);
    EXPECT_TRUE(device.IsServer());
}

TEST(GDeviceIO, DoesNothingByItself) {
    GDeviceIO device(&kPort);
    int count = 3;
    EXPECT_EQ(device.Open(&kPort), 0);
    EXPECT_TRUE(device.isOpen && device.IsServer());
    EXPECT_EQ(device.Query(), 0);
    EXPECT_EQ(device.Read(1, 2, 3), 0);
    EXPECT_EQ(device.Write("abc", &count), 0);
    EXPECT_EQ(device.OSWriteUnlocked("abc", &count), -1);
    EXPECT_EQ(device.Purge(), -1);
    EXPECT_EQ(device.Close(), 0);
    EXPECT_FALSE(device.isOpen);
    EXPECT_EQ(Printed([] { GDeviceIO without(nullptr); }), "GDeviceIO Line: 24\n");
}

TEST(GDeviceIO, RefusesOtherThreadsButReportsSuccess) {
    SetTraceThreshold(100);
    NotingDevice device(&kPort);
    int count = 3;
    const std::string text = Printed([&] {
        std::thread([&] {
            EXPECT_EQ(device.Open(nullptr), 0);
            EXPECT_EQ(device.Write("abc", &count), 0);
            EXPECT_EQ(device.WriteString("abc"), 0);
            EXPECT_EQ(device.Query(), 0);
            EXPECT_EQ(device.Read(1, 2, 3), 0);
            EXPECT_EQ(device.Purge(), 0);
            EXPECT_EQ(device.Close(), 0);
        }).join();
    });
    EXPECT_EQ(text,
              "GDeviceIO Line: 282\nGDeviceIO Line: 378\nGDeviceIO Line: 139\nGDeviceIO Line: 336\n"
              "GDeviceIO Line: 352\nGDeviceIO Line: 397\nGDeviceIO Line: 320\n");
    EXPECT_FALSE(device.isOpen);
    EXPECT_EQ(device.direct, 0);
}

TEST(GDeviceIO, QueuesOnlyWithABufferAndWritesStraightWithoutBuffering) {
    NotingDevice device(&kPort);
    EXPECT_EQ(Queue(device, {1, 2}), 0);
    EXPECT_EQ(device.WriteString("abc"), 0);
    EXPECT_EQ(device.direct, 5);
    device.bufferedOutput = true;
    EXPECT_EQ(Queue(device, {1, 2}), -1) << "not open yet";
    int count = 4;
    EXPECT_EQ(device.Write("abcd", &count), 0);
    EXPECT_EQ(device.direct, 9) << "Write goes straight to the transport then";
    device.link = false;
    ASSERT_EQ(device.Open(nullptr), 0);
    device.bufferedOutput = false;
    EXPECT_EQ(Queue(device, {1}), -1) << "a buffer is still there";
}

TEST(GDeviceIO, PollingWriterHoldsOutputBackUntilTheLinkIsUp) {
    NotingDevice device(&kPort);
    device.bufferedOutput = true;
    device.link = false;
    ASSERT_EQ(device.Open(nullptr), 0);
    Bytes bytes(60000);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i / 251);
    for (std::size_t i = 0; i < bytes.size(); i += 250) {
        ASSERT_EQ(Queue(device, Bytes(bytes.begin() + static_cast<long>(i),
                                      bytes.begin() + static_cast<long>(i) + 250)),
                  0);
    }
    const int polls = device.polls;
    while (device.polls < polls + 2) OSSleep(1);
    EXPECT_EQ(device.Sent(), 0U);
    device.link = true;
    while (device.Sent() < 50000) OSSleep(1);
    ASSERT_EQ(device.Close(), 0);
    EXPECT_EQ(device.sent, Bytes(bytes.end() - 50000, bytes.end())) << "the newest 50000";
    EXPECT_EQ(device.largest, 10000);

    device.link = false;
    ASSERT_EQ(device.Open(nullptr), 0);
    Queue(device, {1, 2, 3});
    device.Purge();
    device.link = true;
    Queue(device, {4});
    while (device.Sent() < 50001) OSSleep(1);
    EXPECT_EQ(device.sent.back(), 4);
}

TEST(GDeviceIO, SignalledWriterSendsAtOnceAndEndsWithTheDevice) {
    NotingDevice device(&kPort);
    device.bufferedOutput = true;
    device.signalledWriter = true;
    ASSERT_EQ(device.Open(nullptr), 0);
    for (int i = 0; i < 40; ++i) ASSERT_EQ(Queue(device, Bytes(1000, 5)), 0);
    while (device.Sent() < 40000) OSSleep(1);
    ASSERT_EQ(device.Close(), 0);
    EXPECT_LE(device.largest, 5000);
    EXPECT_FALSE(device.bufferedOutput) << "cleared by stopping the writer";
}

}  // namespace
}  // namespace vexa
