// Asks a unit whether its own DAQ application holds the hardware. Give it the unit's directory, as
// vexa-unit run --dir was given.
#include <vexahost/Client.h>
#include <vexahost/SocketTransport.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: who_has_the_daq DIR\n");
        return 2;
    }
    const auto unit = vexahost::Client::Connect([&](const vexahost::ConnectLimits& limits) {
        return vexahost::SocketTransport::ConnectUnit(argv[1], limits);
    });
    if (!unit) {
        std::fprintf(stderr, "%s\n", unit.error().message.c_str());
        return 2;
    }
    constexpr vexahost::ChildId kController = 1;
    auto opened = (*unit)->OpenController(kController, false);
    if (!opened) {
        std::fprintf(stderr, "%s\n", opened.error().message.c_str());
        return 1;
    }
    const auto held = (*unit)->QueryDaqApplication();
    if (!held) {
        std::fprintf(stderr, "%s\n", held.error().message.c_str());
        return 1;
    }
    std::printf("%s\n", *held == vexahost::DaqApplication::kHoldsHardware
                            ? "the unit's DAQ application"
                            : "nobody");
    return 0;
}
