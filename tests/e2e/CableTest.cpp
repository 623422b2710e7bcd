// The cable, pulled and put back while sensors stream, again and again.

#include <gtest/gtest.h>

#include <cstdlib>

#include "e2e/RunningUnit.h"

namespace vexa::test {
namespace {

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
            host.Send(InitialSync());
            host.Await("b8 1a 00");
            host.Send(OpenController(false));
            host.Await(ControllerReply(0, 0x98, 0x72, 0));
            host.Send(ToController(0x74, {}));
            host.Await(ControllerReply(1, 0x98, 0x74, 0));
            host.Send(OpenChild(5, "Fast"));
            host.Await(ControllerReply(2, 0x98, 0x70, 0));
            host.Send(OpenChild(6, "Hid"));
            host.Await(ControllerReply(3, 0x98, 0x70, 0));
            host.Send(Tunnel(6, Hex("40 00 00 00 00 00 00 00")));
            host.Await("06 00 00 00 80 04");
            host.Await("05 00 00 00 a0");  // last, as they never end
        }
        line = unit.AwaitLine("USB gadget cable is unplugged.", line);
        // The hardware is handed back when nobody is connected any more.
        EXPECT_TRUE(testkit::WaitUntil(kPatience, [&] {
            return unit.Calls(R"(criAnswer("DAQ", 1)").size() > static_cast<std::size_t>(cycle);
        }));
        if (cycle == 0) atFirst = unit.ThreadsAndDescriptors();
    }
    // A thread that has just ended may still be listed.
    EXPECT_TRUE(testkit::WaitUntil(kPatience, [&] {
        const auto [threads, descriptors] = unit.ThreadsAndDescriptors();
        return threads <= atFirst.first && descriptors <= atFirst.second;
    }));
    EXPECT_EQ(unit.Stop(), 0);

    EXPECT_EQ(unit.Calls("VEXA_Device_Stream_Open").size(), 3U * static_cast<std::size_t>(cycles));
    EXPECT_EQ(unit.Calls("VEXA_Device_Stream_Close").size(), 3U * static_cast<std::size_t>(cycles));
    Lines exchange;
    for (int cycle = 0; cycle < cycles; ++cycle) {
        for (const char* command :
             {"\"DAQ\", 3, 1000", "\"DAQ\", 2, 10000", "\"SPLASH\", 1, 1000", "\"FGEN\", 4, 1000",
              "\"DAQ\", 1, 1000", "\"SPLASH\", 2, 1000"}) {
            exchange.push_back("criCommand(" + std::string(command) + ") = 1");
        }
    }
    EXPECT_EQ(unit.Calls("criCommand"), exchange);
}

}  // namespace
}  // namespace vexa::test
