// The serial transport on a pseudo-terminal pair: the test holds the other side of the line.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>

#include <cstdlib>
#include <memory>
#include <numeric>

#include "devices/GSerialDevice.h"
#include "support/Output.h"
#include "support/System.h"
#include "support/TransportEnds.h"

namespace vexa {
namespace {

using namespace test;

class SerialDevice : public testing::Test {
  protected:
    SerialDevice() {
        grantpt(farEnd.Get());
        unlockpt(farEnd.Get());
        port.location = ptsname(farEnd.Get());
        // Everything that a raw line must not have.
        termios cooked = Settings();
        cooked.c_iflag |= ICRNL | IXON;
        cooked.c_lflag |= ECHO | ICANON | ISIG;
        tcsetattr(farEnd.Get(), TCSANOW, &cooked);
        device = std::make_unique<GSerialDevice>(&port);
        device->SetReadCallback(ReceivedBytes::Callback, &received);
    }
    [[nodiscard]] termios Settings() const {
        termios settings{};
        EXPECT_EQ(tcgetattr(farEnd.Get(), &settings), 0);
        return settings;
    }

    Peer farEnd{posix_openpt(O_RDWR | O_NOCTTY)};
    GPortRef port{1, "", "", "the line", 0, 0};
    ReceivedBytes received;
    std::unique_ptr<GSerialDevice> device;
};

TEST_F(SerialDevice, SetsTheLineRawAtABaudRateOfItsTable) {
    EXPECT_FALSE(device->IsServer());
    EXPECT_EQ(GSerialDevice::GetDefaultPortName(), "COM1");
    constexpr int kRates[] = {0,    50,   75,   110,  134,   150,   200,   300,    600, 1200,
                              1800, 2400, 4800, 9600, 19200, 38400, 57600, 115200, -1};
    constexpr speed_t kCodes[] = {B38400, B50,    B75,    B110,   B134,  B150,  B200,
                                  B300,   B600,   B1200,  B1800,  B2400, B4800, B9600,
                                  B19200, B38400, B38400, B38400, B38400};
    for (std::size_t i = 0; i < std::size(kRates); ++i) {
        GSerialDevice each(&port);
        each.SetReadCallback(ReceivedBytes::Callback, &received);
        if (i > 0) each.SetBaudRate(kRates[i]);
        ASSERT_EQ(each.Open(nullptr), 0);
        const termios settings = Settings();
        EXPECT_EQ(settings.c_iflag, static_cast<tcflag_t>(IGNBRK | IGNPAR));
        EXPECT_EQ(settings.c_oflag + settings.c_lflag, 0U);
        EXPECT_EQ(settings.c_cflag, static_cast<tcflag_t>(CS8 | CREAD | CLOCAL | kCodes[i]))
            << kRates[i];
        EXPECT_EQ(settings.c_cc[VMIN], 1);
        EXPECT_EQ(settings.c_cc[VTIME], 0);
        EXPECT_EQ(each.SetBaudRate(9600), -1) << "not while open";
    }
}

TEST_F(SerialDevice, CarriesEveryByteBothWays) {
    Bytes all(256);
    std::iota(all.begin(), all.end(), std::uint8_t{0});
    ASSERT_EQ(device->Open(nullptr), 0);
    farEnd.Send(all);
    EXPECT_EQ(received.Await(all.size()), all);
    int count = static_cast<int>(all.size());
    EXPECT_EQ(device->Write(all.data(), &count), 0);
    EXPECT_EQ(device->OSWriteUnlocked(all.data(), &count), 0);
    EXPECT_EQ(farEnd.Receive(2 * all.size()), all + all);
}

TEST_F(SerialDevice, FailsToOpenALineThatIsNotThere) {
    port.location += "-is-not-there";
    GSerialDevice missing(&port);
    missing.SetReadCallback(ReceivedBytes::Callback, &received);
    EXPECT_EQ(Traced([&] { EXPECT_EQ(missing.Open(&port), -1); }),
              "GSerialDevice_Linux(311) : Error opening device with id the line\n");
    EXPECT_FALSE(missing.isOpen);
}

// A reader that is stuck in its callback cannot be stopped: the close says so and goes on, and what
// the reader holds stays alive until it is done.
TEST_F(SerialDevice, GivesUpAReaderThatDoesNotEnd) {
    enum { kIdle, kEntered, kReleased, kLeft };
    std::atomic<int> callback{kIdle};
    device->SetReadCallback(
        [](const unsigned char*, int, void* context) {
            auto& state = *static_cast<std::atomic<int>*>(context);
            for (state = kEntered; state == kEntered;) OSSleep(1);
            state = kLeft;
            return 0;
        },
        &callback);
    ASSERT_EQ(device->Open(nullptr), 0);
    farEnd.Send({1});
    while (callback != kEntered) OSSleep(1);
    const VirtualTime time;
    const std::string line = "GSerialDevice_Linux(241) : Error closing serial device\n";
    EXPECT_EQ(Traced([&] { EXPECT_EQ(device->Close(), -1); }), line);
    EXPECT_EQ(VirtualTime::TakeSleeps(), std::vector<std::int64_t>(201, 10000));
    EXPECT_TRUE(device->isOpen);
    int count = 1;
    EXPECT_EQ(device->OSWrite("x", &count), -1) << "the descriptor is closed all the same";
    EXPECT_EQ(count, 1);
    EXPECT_EQ(Traced([&] { device.reset(); }), line);
    callback = kReleased;
    while (callback != kLeft) OSSleep(1);
}

}  // namespace
}  // namespace vexa
