// Children: opening, closing, and their data both ways, as far as the
// model in tests/model does not show it.

#include <atomic>
#include <functional>
#include <thread>

#include "mux/MuxTest.h"
#include "mux/TunneledDevices.h"

namespace vexa {
namespace {

using namespace test;
using Calls = std::vector<std::string>;

class Children : public MuxTest {
  protected:
    Children() { OpenControllerFirst(); }

    void ExpectOpenError(std::uint8_t sequence, const Bytes& command, std::uint8_t code) {
        EXPECT_EQ(Reply(command), ControllerReply(sequence, 0x9C, 0x70, code)) << ToHex(command);
    }
};

TEST_F(Children, AreRefusedForEveryReasonThereIs) {
    Open(1, "stream9");
    std::uint8_t sequence = 2;
    ExpectOpenError(sequence++, OpenChild(1, "stream8"), 54);              // id in use
    ExpectOpenError(sequence++, OpenChild(2, "type7"), 54);                // unsupported type
    ExpectOpenError(sequence++, OpenChild(2, "type12"), 54);               // beyond all sets
    ExpectOpenError(sequence++, OpenChild(2, "unknown"), 54);              // unknown name
    ExpectOpenError(sequence++, OpenChild(2, "hid4"), 54);                 // none attached
    ExpectOpenError(sequence++, OpenChild(2, std::string(220, 'x')), 54);  // length 221
    const std::string longest(219, 'n');
    script.types[longest] = 8;
    EXPECT_EQ(Reply(OpenChild(0x77, longest)), ControllerReply(sequence++, 0x98, 0x70, 0));
    Reply(CloseChild(0x77));
    ++sequence;
    Bytes cut = OpenChild(2, "stream8-and-more");
    cut[17] = 7;  // the length ends the name
    EXPECT_EQ(Reply(Sealed(cut)), ControllerReply(sequence++, 0x98, 0x70, 0));
    for (bool* const works : {&script.streamsOpen, &script.snapshotsOpen}) {
        *works = false;
        ExpectOpenError(sequence++, OpenChild(3, "stream8"), 54);
        *works = true;
    }

    for (std::uint32_t id = 3; id < 10; ++id, ++sequence) Open(id, "hid2");
    script.TakeCalls();
    ExpectOpenError(sequence, OpenChild(10, "stream8"), 50);  // the controller counts
    EXPECT_EQ(script.TakeCalls(), Calls{});
}

TEST_F(Children, AreNotMeantByPacketsWithoutAnId) {
    Open(0, "stream8");
    for (const Bytes& packet : {Sealed(Hex("60 07 07 00 00 00 00")), Sealed(Hex("60 04 07 00"))}) {
        EXPECT_EQ(Printed([&] { Pass(packet); }),
                  "Input from Host - Discarding orphaned tunnel packet.: " + ToHex(packet) + "\n");
    }
    EXPECT_TRUE(script.writes.empty());
}

TEST_F(Children, WrapTheirDataUpTo245Bytes) {
    const std::uint32_t stream = Open(0x01020304, "stream11");
    EXPECT_EQ(script.Send(stream, Bytes(245, 0x5A)), 0);
    EXPECT_EQ(script.Send(stream, {}), 0);
    EXPECT_EQ(link.Take(),
              ChildData(0x01020304, 0, Bytes(245, 0x5A)) + " " + ChildData(0x01020304, 1, {}));
    EXPECT_EQ(Printed([&] {
                  for (const std::size_t size : {246U, 300U}) {
                      EXPECT_EQ(script.Send(stream, Bytes(size, 0)), -1);
                  }
              }),
              "VEXADevMgr TunneledDeviceReadCallback numBytes = 246 \n")
        << "once";
    for (int i = 2; i < 256; ++i) script.Send(stream, {1});
    link.Take();
    script.Send(stream, {1});
    EXPECT_EQ(link.Take(), ChildData(0x01020304, 0, {1})) << "256 packets on";
}

TEST_F(Children, AreNotFoundWhileAnotherThreadHoldsTheirLock) {
    const VirtualTime time;
    MuxChildren& children = mux.Children();
    MuxChild child;
    child.id = 5;
    ASSERT_TRUE(children.Add(child));
    const std::vector<std::function<bool()>> operations = {
        [&] { return children.Count() != 0; },
        [&] { return children.Find(5, child); },
        [&] { return children.Copy().count != 0; },
        [&] { return children.Add(MuxChild{.id = 6}); },
        [&] { return children.Remove(5); },
        [&] { return children.ControllerId() != 0; },
        [&] { return children.TakeControllerSequence().id != 0; },
        [&] { return children.MarkHostConnected(false); },
        [&] { return children.Clear(), false; },
        [&] {
            return TunneledDeviceReadCallback(nullptr, 0, reinterpret_cast<void*>(5)) == 0;
        },  // NOLINT
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
    EXPECT_EQ(children.Count(), 2U) << "and nothing has changed";
    EXPECT_TRUE(mux.IsHostConnected());
    failing.mutexInit = 1;
    EXPECT_EQ(Printed([&] { EXPECT_FALSE(mux.Init()); }),
              "Failed to init mutex in HostVEXMuxController_Init.\n");
    EXPECT_EQ(Printed([&] { EXPECT_EQ(children.Count(), 0U); }), "Trying to lock mutex failed\n");
    mux.Init();
}

// Library threads send data while the main thread closes and opens children and replies.
TEST_F(Children, KeepTheirSequenceWhileOthersComeAndGo) {
    const std::uint32_t steady = Open(1, "stream8");
    const auto callback = script.streams[steady];
    std::atomic<bool> stop{false};
    std::thread others([&] {
        const std::uint8_t block[] = {9};
        while (!stop) {
            TunneledDeviceReadCallback(block, 1, reinterpret_cast<void*>(2));
            TunneledHIDDeviceReadCallback(block, 1, reinterpret_cast<void*>(3));
        }
    });
    std::thread sender([&] {
        const std::uint8_t block[] = {7};
        for (int i = 0; i < 300; ++i) {
            ASSERT_EQ(callback.callback(block, 1, callback.context), 0);
        }
    });
    Printed([&] {
        for (int round = 0; round < 50; ++round) {
            Reply(OpenChild(2, "stream9"));
            Reply(OpenChild(3, "hid2"));
            Reply(CloseChild(2));
            Reply(CloseChild(3));
        }
        sender.join();
        stop = true;
        others.join();
    });
    EXPECT_EQ(mux.Children().Count(), 2U);
    link.Take();
    callback.callback(Bytes{7}.data(), 1, callback.context);
    EXPECT_EQ(link.Take(), ChildData(1, 300 % 256, {7}));
}

}  // namespace
}  // namespace vexa
