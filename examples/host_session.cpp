// A host's session with a unit, with the host kit's library: opens a sensor, prints what it sends
// for a while, and connects anew when the link is lost. Give it a running unit's directory and a
// sensor.

#include <cstdio>

#include "vexahost/Client.h"
#include "vexahost/SocketTransport.h"

using vexahost::Client;
using vexahost::Done;
using vexahost::ErrorKind;
using vexahost::Expected;

namespace {

constexpr vexahost::ChildId kController = 1;
constexpr vexahost::ChildId kSensor = 2;

Expected<Done> PrintBlocks(Client& unit, const char* sensor, int count) {
    if (auto opened = unit.OpenController(kController, false); !opened) return opened;
    if (auto opened = unit.OpenDevice(sensor, kSensor); !opened) return opened;
    for (int i = 0; i < count; ++i) {
        const auto block = unit.Receive(kSensor, Client::kDefaultTimeout);
        if (!block) return block.error();
        std::printf("%s\n", vexahost::HexText(block->bytes).c_str());
    }
    return unit.CloseController();
}

}  // namespace

int main(int argc, char** argv) {
    const char* const directory = argc > 1 ? argv[1] : "build/unit";
    const char* const sensor = argc > 2 ? argv[2] : "Accelerometer";
    const auto unit = Client::Connect([&](const vexahost::ConnectLimits& limits) {
        return vexahost::SocketTransport::ConnectUnit(directory, limits);
    });
    if (!unit) {
        std::fprintf(stderr, "%s\n", unit.error().message.c_str());
        return 2;
    }
    auto result = PrintBlocks(**unit, sensor, 10);
    if (!result && result.error().kind == ErrorKind::kLinkLost) {
        result = (*unit)->Reconnect(std::chrono::seconds(5));
        if (result) result = PrintBlocks(**unit, sensor, 10);
    }
    if (result) return 0;
    std::fprintf(stderr, "%s\n", result.error().message.c_str());
    return 1;
}
