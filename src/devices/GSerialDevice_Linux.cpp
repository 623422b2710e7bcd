#include <fcntl.h>
#include <termios.h>

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include "devices/GSerialDevice.h"

namespace vexa {

namespace {

constexpr std::int32_t kDefaultBaudRate = 38400;

constexpr std::array<std::pair<std::int32_t, speed_t>, 14> kSpeeds = {{{50, B50},
                                                                       {75, B75},
                                                                       {110, B110},
                                                                       {134, B134},
                                                                       {150, B150},
                                                                       {200, B200},
                                                                       {300, B300},
                                                                       {600, B600},
                                                                       {1200, B1200},
                                                                       {1800, B1800},
                                                                       {2400, B2400},
                                                                       {4800, B4800},
                                                                       {9600, B9600},
                                                                       {19200, B19200}}};

tcflag_t SpeedCode(std::int32_t baudRate) {
    const auto* known =
        std::ranges::find(kSpeeds, baudRate, &std::pair<std::int32_t, speed_t>::first);
    return known == kSpeeds.end() ? B38400 : known->second;
}

struct SerialOSData : NodeRecord {
    explicit SerialOSData(const std::int32_t& rate) : baudRate(rate) {}

    bool Open(const GPortRef& port) override {
        if (!OpenNode(port.location, O_RDWR | O_NOCTTY)) return false;
        // Built afresh: nothing of what the line was set to before may stay.
        termios attributes{};
        attributes.c_iflag = IGNBRK | IGNPAR;
        attributes.c_cflag = CS8 | CREAD | CLOCAL | SpeedCode(baudRate);
        attributes.c_cc[VMIN] = 1;
        attributes.c_cc[VTIME] = 0;
        tcflush(descriptor, TCIFLUSH);
        tcsetattr(descriptor, TCSANOW, &attributes);
        return true;
    }

    const std::int32_t& baudRate;  // the device's; used by its owner at Open only
};

}  // namespace

int GSerialDevice::SetBaudRate(int rate) {
    if (isOpen) return -1;
    baudRate = rate;
    return 0;
}

bool GSerialDevice::OSInitialize() {
    baudRate = kDefaultBaudRate;
    SetRecord(std::make_shared<SerialOSData>(baudRate));
    return true;
}

}  // namespace vexa
