// The cable, pulled and put back while sensors stream, again and again.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "e2e/RunningUnit.h"

namespace vexa::test {
namespace {

std::size_t CountStarting(const Lines& lines, const std::string& start) {
    return static_cast<std::size_t>(std::ranges::count_if(
        lines, [&](const std::string& line) { return line.starts_with(start); }));
}

// 20, unless the environment says how often.
int CycleCount() {
    const char* const count = std::getenv("CABLE_CYCLES");
    return count != nullptr ? std::atoi(count) : 20;
}

TEST(Cable, LeavesNothingBehindHoweverOftenItIsPulled) {
    const int cycles = CycleCount();
    RunningUnit unit(R"({
      "devices": [{"name": "Fast", "type": 11, "rate": 200}, {"name": "Hid", "type": 4, "rate": 50}],
      "daq": {"measurementRate": 100, "syncDelayMs": 0},
      "applications": {"DAQ": {"delayMs": 1}, "SPLASH": {"delayMs": 1}, "FGEN": {"delayMs": 1}}})");
    std::pair<std::size_t, std::size_t> atFirst;
    std::size_t line = 0;
    for (int cycle = 0; cycle < cycles && !HasFailure(); ++cycle) {
        {
            Host host(unit);
            const auto await = [&](const std::string& wanted) {
                std::string packet;
                do packet = host.Receive();
                while (packet.find(wanted) == std::string::npos && packet != "timeout");
                EXPECT_NE(packet, "timeout") << "cycle " << cycle << ", waiting for " << wanted;
            };
            host.Send(InitialSync());
            await("b8 1a 00");
            host.Send(OpenController(false));
            await(ControllerReply(0, 0x98, 0x72, 0));
            host.Send(ToController(0x74, {}));
            await(ControllerReply(1, 0x98, 0x74, 0));
            host.Send(OpenChild(5, "Fast"));
            await(ControllerReply(2, 0x98, 0x70, 0));
            host.Send(OpenChild(6, "Hid"));
            await(ControllerReply(3, 0x98, 0x70, 0));
            host.Send(Tunnel(6, Hex("40 00 00 00 00 00 00 00")));
            await("05 00 00 00 a0");
            await("06 00 00 00 80 04");
        }
        line = unit.AwaitLine("USB gadget cable is unplugged.", line);
        // The hardware is handed back when nobody is connected any more.
        while (CountStarting(unit.Journal(), R"(criAnswer("DAQ", 1)") <=
               static_cast<std::size_t>(cycle)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        if (cycle == 0) atFirst = unit.ThreadsAndDescriptors();
    }
    EXPECT_EQ(unit.ThreadsAndDescriptors(), atFirst);
    EXPECT_EQ(unit.Stop(), 0);

    const Lines journal = unit.Journal();
    EXPECT_EQ(CountStarting(journal, "VEXA_Device_Stream_Open"),
              3U * static_cast<std::size_t>(cycles));
    EXPECT_EQ(CountStarting(journal, "VEXA_Device_Stream_Close"),
              3U * static_cast<std::size_t>(cycles));
    Lines exchange;
    for (int cycle = 0; cycle < cycles; ++cycle) {
        for (const char* command :
             {"\"DAQ\", 3, 1000", "\"DAQ\", 2, 10000", "\"SPLASH\", 1, 1000", "\"FGEN\", 4, 1000",
              "\"DAQ\", 1, 1000", "\"SPLASH\", 2, 1000"}) {
            exchange.push_back("criCommand(" + std::string(command) + ") = 1");
        }
    }
    Lines seen;
    std::ranges::copy_if(journal, std::back_inserter(seen),
                         [](const std::string& each) { return each.starts_with("criCommand"); });
    EXPECT_EQ(seen, exchange);
}

}  // namespace
}  // namespace vexa::test
