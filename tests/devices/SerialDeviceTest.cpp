// The serial transport on a pseudo-terminal pair: the test holds the other side of the line.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <iterator>
#include <memory>

#include "devices/GSerialDevice.h"
#include "support/Output.h"
#include "support/ReceivedBytes.h"
#include "support/System.h"

namespace vexa {
namespace {

using namespace test;

class SerialDevice : public testing::Test {
  protected:
    SerialDevice() : farEnd(posix_openpt(O_RDWR | O_NOCTTY)) {
        grantpt(farEnd);
        unlockpt(farEnd);
        port.location = ptsname(farEnd);
        // Everything that a raw line must not have.
        termios cooked{};
        tcgetattr(farEnd, &cooked);
        cooked.c_iflag |= ICRNL | IXON;
        cooked.c_lflag |= ECHO | ICANON | ISIG;
        tcsetattr(farEnd, TCSANOW, &cooked);
        device = std::make_unique<GSerialDevice>(&port);
        device->SetReadCallback(ReceivedBytes::Callback, &received);
        SetTraceThreshold(1);
    }
    ~SerialDevice() override {
        device.reset();
        close(farEnd);
        SetTraceThreshold(100);
    }
    [[nodiscard]] termios Settings() const {
        termios settings{};
        EXPECT_EQ(tcgetattr(farEnd, &settings), 0);
        return settings;
    }
    void FarEndSends(const Bytes& bytes) const {
        ASSERT_EQ(write(farEnd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    [[nodiscard]] Bytes FarEndReads(std::size_t count) const {
        Bytes bytes(count);
        for (std::size_t got = 0; got < count;) {
            const ssize_t more = read(farEnd, bytes.data() + got, count - got);
            if (more <= 0) break;
            got += static_cast<std::size_t>(more);
        }
        return bytes;
    }

    int farEnd;
    GPortRef port{1, "", "", "the line", 0, 0};
    ReceivedBytes received;
    std::unique_ptr<GSerialDevice> device;
};

TEST_F(SerialDevice, SetsTheLineRaw) {
    ASSERT_EQ(device->Open(nullptr), 0);
    const termios settings = Settings();
    EXPECT_EQ(settings.c_iflag, static_cast<tcflag_t>(IGNBRK | IGNPAR));
    EXPECT_EQ(settings.c_oflag, 0U);
    EXPECT_EQ(settings.c_lflag, 0U);
    EXPECT_EQ(settings.c_cflag, static_cast<tcflag_t>(CS8 | CREAD | CLOCAL | B38400));
    EXPECT_EQ(settings.c_cc[VMIN], 1);
    EXPECT_EQ(settings.c_cc[VTIME], 0);
    EXPECT_FALSE(device->IsServer());
    EXPECT_EQ(GSerialDevice::GetDefaultPortName(), "COM1");
}

TEST_F(SerialDevice, OpensAtTheBaudRatesOfItsTable) {
    constexpr int kRates[] = {50,   75,   110,  134,  150,   200,   300,   600,    1200,
                              1800, 2400, 4800, 9600, 19200, 38400, 57600, 115200, -1};
    constexpr speed_t kCodes[] = {B50,   B75,    B110,   B134,   B150,   B200,
                                  B300,  B600,   B1200,  B1800,  B2400,  B4800,
                                  B9600, B19200, B38400, B38400, B38400, B38400};
    for (std::size_t i = 0; i < std::size(kRates); ++i) {
        GSerialDevice each(&port);
        each.SetReadCallback(ReceivedBytes::Callback, &received);
        ASSERT_EQ(each.SetBaudRate(kRates[i]), 0);
        ASSERT_EQ(each.Open(nullptr), 0);
        EXPECT_EQ(Settings().c_cflag & static_cast<tcflag_t>(CBAUD), kCodes[i]) << kRates[i];
        EXPECT_EQ(each.SetBaudRate(9600), -1) << "not while open";
    }
}

TEST_F(SerialDevice, CarriesEveryByteBothWays) {
    Bytes all(256);
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<std::uint8_t>(i);
    ASSERT_EQ(device->Open(nullptr), 0);
    FarEndSends(all);
    EXPECT_EQ(received.Await(all.size()), all);
    int count = static_cast<int>(all.size());
    EXPECT_EQ(device->Write(all.data(), &count), 0);
    EXPECT_EQ(FarEndReads(all.size()), all);
    EXPECT_EQ(device->OSWriteUnlocked(all.data(), &count), 0);
    EXPECT_EQ(FarEndReads(all.size()), all);
}

TEST_F(SerialDevice, ClosesABlockedReaderAndReadsNoMoreWhenOpenedAgain) {
    ASSERT_EQ(device->Open(nullptr), 0);
    EXPECT_EQ(Printed([&] { EXPECT_EQ(device->Close(), 0); }), "");
    int count = 1;
    EXPECT_EQ(device->OSWrite("x", &count), -1);
    EXPECT_EQ(count, 1);
    const std::size_t threads = ThreadCount();
    ASSERT_EQ(device->Open(nullptr), 0);
    FarEndSends({1, 2, 3});
    while (ThreadCount() > threads && received.Await(0).empty()) OSSleep(1);
    EXPECT_EQ(device->Close(), 0);
    EXPECT_TRUE(received.Await(0).empty());
}

TEST_F(SerialDevice, FailsToOpenWithALine) {
    const std::string line = "GSerialDevice_Linux(311) : Error opening device with id the line\n";
    device->SetReadCallback(ReceivedBytes::Callback, nullptr);
    EXPECT_EQ(Printed([&] { EXPECT_EQ(device->Open(nullptr), -1); }), line);
    port.location += "-is-not-there";
    GSerialDevice missing(&port);
    missing.SetReadCallback(ReceivedBytes::Callback, &received);
    EXPECT_EQ(Printed([&] { EXPECT_EQ(missing.Open(&port), -1); }), line);
    EXPECT_FALSE(missing.isOpen);
}

// A reader that is stuck in its callback cannot be stopped: the close says so and goes on, and what
// the reader holds stays alive until it is done.
TEST_F(SerialDevice, GivesUpAReaderThatDoesNotEnd) {
    struct Stuck {
        std::atomic<bool> entered{false};
        std::atomic<bool> release{false};
        std::atomic<bool> left{false};
    } stuck;
    device->SetReadCallback(
        [](const unsigned char*, int, void* context) {
            auto* self = static_cast<Stuck*>(context);
            self->entered = true;
            while (!self->release) OSSleep(1);
            self->left = true;
            return 0;
        },
        &stuck);
    ASSERT_EQ(device->Open(nullptr), 0);
    FarEndSends({1});
    while (!stuck.entered) OSSleep(1);
    const VirtualTime time;
    const std::string line = "GSerialDevice_Linux(241) : Error closing serial device\n";
    EXPECT_EQ(Printed([&] { EXPECT_EQ(device->Close(), -1); }), line);
    EXPECT_EQ(VirtualTime::TakeSleeps(), std::vector<std::int64_t>(201, 10000));
    EXPECT_TRUE(device->isOpen);
    int count = 1;
    EXPECT_EQ(device->OSWrite("x", &count), -1) << "the descriptor is closed all the same";
    EXPECT_EQ(Printed([&] { device.reset(); }), line);
    stuck.release = true;
    while (!stuck.left) OSSleep(1);
}

}  // namespace
}  // namespace vexa
