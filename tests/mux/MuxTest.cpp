// What tests/model cannot show of the multiplexer: other threads, a lock that is held, functions
// that the main loop does not call.

#include "mux/MuxTest.h"

#include <atomic>
#include <functional>
#include <thread>

#include "mux/TunneledDevices.h"
#include "support/System.h"

namespace vexa {
namespace {

using namespace test;

// The main loop routes each packet before it parses on; the stream does not rely on that.
TEST_F(MuxTest, OnlyASyncGetsPastAWaitingPacket) {
    HostPacketStream stream;
    const Bytes packet = Sealed(Hex("80 05 01 00 33"));
    const Bytes sync = InitialSync();
    link.HostSends(packet + Hex("77") + sync + packet);
    EXPECT_FALSE(stream.ParsePass());
    std::string expected = "Input from Host - IGNORED: 77\n";
    for (std::size_t i = 0; i < 24; ++i) {
        expected += "Input from Host - IGNORED: " + ToHex({&sync[i], 1}) + "\n";
    }
    EXPECT_EQ(Printed([&] { EXPECT_TRUE(stream.ParsePass()); }),
              expected + "Input from Host - INIT: " + ToHex(sync) + "\n");
    EXPECT_EQ(ToHex(stream.Packet().first<25>()), ToHex(sync));
    EXPECT_EQ(HostLink_BytesAvailable(), packet.size()) << "a sync ends the pass";
}

TEST_F(MuxTest, CountsConnectionChangesThatATransportReports) {
    std::uint32_t generation = 77;
    const auto report = [&](bool connected) {
        SetHostConnected(connected, &generation);
        return generation;
    };
    EXPECT_EQ(report(true), 1U);
    EXPECT_EQ(report(true), 1U) << "no change";
    EXPECT_EQ(report(false), 2U);
    SetHostConnected(true, nullptr);
    EXPECT_EQ(mux.Children().ConnectionGeneration(1), 3U) << "the count that the main loop follows";
    HostVEXMuxController_Destroy();
    EXPECT_EQ(report(true), 0U) << "nobody counts";
    HostVEXMuxController_Init(mux.Children());
}

TEST_F(MuxTest, ChildrenAreOutOfReachWhileAnotherThreadHoldsTheirLock) {
    const VirtualTime time;
    MuxChildren& children = mux.Children();
    MuxChild child;
    child.id = 5;
    ASSERT_TRUE(children.Add(child));
    void* const context = reinterpret_cast<void*>(5);  // NOLINT: an id, as the library carries it
    const std::vector<std::function<bool()>> operations = {
        [&] { return children.Count() != 0; },
        [&] { return children.Find(5, child); },
        [&] { return children.Copy().count != 0; },
        [&] { return children.Add(MuxChild{.id = 6}); },
        [&] { return children.Remove(5); },
        [&] { return children.ControllerId() != 0; },
        [&] { return children.TakeControllerSequence().id != 0; },
        [&] { return children.MarkHostConnected(false); },
        [&] { return children.ReportLinkStatus(1) != 0; },
        [&] { return children.Clear(), false; },
        [&] { return TunneledDeviceReadCallback(nullptr, 0, context) == 0; },
    };
    if (!children.Lock(0)) FAIL();
    for (const auto& operation : operations) {
        const std::string text = Printed([&] {
            std::thread([&] {
                EXPECT_FALSE(operation());
                EXPECT_EQ(VirtualTime::TakeSleeps(), std::vector<std::int64_t>(500, 2000))
                    << "501 tries, 2 ms apart";
            }).join();
        });
        EXPECT_EQ(text, "Trying to lock mutex failed\n");
    }
    children.Unlock();
    EXPECT_EQ(children.Count(), 1U) << "and nothing has changed";
    EXPECT_TRUE(mux.IsHostConnected());
    failing.mutexInit = 1;
    EXPECT_EQ(Printed([&] { EXPECT_FALSE(mux.Init()); }),
              "Failed to init mutex in HostVEXMuxController_Init.\n");
    EXPECT_EQ(Printed([&] { EXPECT_EQ(children.Count(), 0U); }), "Trying to lock mutex failed\n");
    mux.Init();
}

// Library threads send data while the main thread closes and opens children and replies.
TEST_F(MuxTest, AChildKeepsItsSequenceWhileOthersComeAndGo) {
    Reply(OpenController(false));
    const auto steady = script.streams[Open(1, "stream8")];
    const Bytes block = {7};
    std::atomic<bool> stop{false};
    std::thread others([&] {
        while (!stop) {
            TunneledDeviceReadCallback(block.data(), 1, reinterpret_cast<void*>(2));     // NOLINT
            TunneledHIDDeviceReadCallback(block.data(), 1, reinterpret_cast<void*>(3));  // NOLINT
        }
    });
    std::thread sender([&] {
        for (int i = 0; i < 300; ++i) {
            EXPECT_EQ(steady.callback(block.data(), 1, steady.context), 0);
        }
    });
    Printed([&] {
        for (int round = 0; round < 50; ++round) {
            Reply(OpenChild(2, "stream9") + OpenChild(3, "hid2"));
            Reply({});
            Reply(CloseChild(2) + CloseChild(3));
            Reply({});
        }
        sender.join();
        stop = true;
        others.join();
    });
    EXPECT_EQ(mux.Children().Count(), 2U);
    link.Take();
    steady.callback(block.data(), 1, steady.context);
    EXPECT_EQ(link.Take(), ChildData(1, 300 % 256, block));
}

}  // namespace
}  // namespace vexa
