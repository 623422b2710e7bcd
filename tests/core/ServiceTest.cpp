// Start-up, main loop and shut-down: the order of library calls and printed lines, and the pauses.

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "core/Service.h"
#include "foundation/GUtils.h"
#include "support/HostPackets.h"
#include "support/Output.h"
#include "support/QueuedHostLink.h"
#include "support/ScriptedLibraries.h"
#include "support/System.h"

namespace vexa {
namespace {

using namespace test;
using Calls = std::vector<std::string>;

class ServiceTest : public testing::Test {
  protected:
    ServiceTest() {
        ScriptedLibraries::Reset();
        queued = &link;
    }
    ~ServiceTest() override { SetTraceThreshold(100); }

    static int UseQueuedLink() {
        HostLink_Use(&queued->state);
        return 1;
    }
    static int FailToOpen() { return 0; }
    // Passes; the result is the last one's.
    bool Pass(int count) {
        bool more = false;
        Printed([&] {
            for (; count > 0; --count) more = service.Pass();
        });
        return more;
    }

    static inline QueuedHostLink* queued = nullptr;
    VirtualTime time;
    ScriptedLibraries& script = ScriptedLibraries::Get();
    QueuedHostLink link;
    Service service;
};

TEST_F(ServiceTest, StartsAndShutsDownInOrder) {
    EXPECT_EQ(Printed([&] { EXPECT_TRUE(service.StartUp(UseQueuedLink)); }),
              "VEXADevMgr(38) : VEXADevMgr version 1.37 is starting up.\n"
              "VEXADevMgr(43) : VEXADevMgr is linked to libVEXA version 03.12 .\n");
    EXPECT_EQ(script.TakeCalls(),
              (Calls{"VEXA_Init()", "VEXA_Diags_SetDebugTraceThreshold(9, 1)", "criInit(DAQ, 1)",
                     "criInit(SPLASH, 1)", "criInit(FGEN, 1)"}));
    script.attached[5] = "board";
    script.daqAnswer = DaqSyncAnswer();
    link.HostSends(OpenController(true));
    Pass(1);
    script.TakeCalls();
    EXPECT_EQ(Printed([&] { service.ShutDown(); }),
              "VEXADevMgr(130) : VEXADevMgr is shutting down.\n"
              "DAQIO(141) : Init during DAQ close succeeded.\n");
    EXPECT_EQ(script.TakeCalls(),
              (Calls{"VEXA_Device_Stream_Close(4)", "VEXA_Device_Open(board, mode 1)",
                     "VEXA_Device_Close()", "criTerminate(DAQ, 1)", "criTerminate(SPLASH, 1)",
                     "criTerminate(FGEN, 1)", "VEXA_Uninit(9)"}));
}

TEST_F(ServiceTest, ShutsDownAtOnceWithoutALinkOrALibrary) {
    for (const bool libraryWorks : {true, false}) {
        ScriptedLibraries::Reset();
        script.library = libraryWorks ? 9 : 0;
        Service each;
        const std::string text =
            Printed([&] { each.Run(libraryWorks ? FailToOpen : UseQueuedLink); });
        EXPECT_NE(text.find("VEXADevMgr(128) : ERROR initializing VEXADevMgr.\n\n"
                            "VEXADevMgr(130) : VEXADevMgr is shutting down.\n"),
                  std::string::npos)
            << text;
        EXPECT_EQ(script.TakeCalls().back(),
                  libraryWorks ? "VEXA_Uninit(9)" : "criTerminate(FGEN, 1)");
    }
}

TEST_F(ServiceTest, PausesTenMillisecondsWhenNothingWaits) {
    static Service* running;
    static std::thread stopper;
    running = &service;
    VirtualTime::TakeSleeps();
    Printed([&] {
        service.Run([] {
            stopper = std::thread([] {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                EXPECT_FALSE(running->Stop());
                EXPECT_TRUE(running->Stop()) << "asked for before";
            });
            return UseQueuedLink();
        });
    });
    stopper.join();
    const auto sleeps = VirtualTime::TakeSleeps();
    EXPECT_FALSE(sleeps.empty());
    EXPECT_EQ(std::ranges::count(sleeps, 10000), static_cast<long>(sleeps.size()));
}

TEST_F(ServiceTest, FollowsTheLinkAndReturnsTheHardware) {
    Printed([&] { service.StartUp(UseQueuedLink); });
    script.answers = {{1, 1}, {2, 1}, {3, 1}, {4, 1}};
    script.types["s"] = 8;
    script.attached = {{5, "board"}, {8, "s"}};
    script.daqAnswer = DaqSyncAnswer();
    link.HostSends(OpenController(false) + OpenChild(1, "s") + ToController(0x74, {}));
    EXPECT_TRUE(Pass(1)) << "bytes of a connected host wait";
    EXPECT_FALSE(Pass(30));
    script.TakeCalls();

    // Only a change that a pass sees counts.
    link.Device().linkUp = false;
    link.Device().linkUp = true;
    Pass(1);
    EXPECT_EQ(script.TakeCalls(), Calls{});
    link.Device().linkUp = false;
    Pass(3);
    Calls calls = script.TakeCalls();
    EXPECT_EQ(std::ranges::count(calls, "VEXA_Device_Stream_Close(4)"), 1);
    calls.erase(calls.begin(), calls.end() - 2);
    EXPECT_EQ(calls, (Calls{"criCommand(DAQ, 1, 1000)", "criCommand(SPLASH, 2, 1000)"}))
        << "each once";
    link.HostSends(InitialSync());
    EXPECT_FALSE(Pass(2)) << "the bytes of no host make no haste";
    EXPECT_EQ(link.Take(), "");
    link.Device().linkUp = true;
    Pass(1);
    EXPECT_NE(link.Take().find("b8 1a"), std::string::npos);
    Printed([&] { service.ShutDown(); });
}

}  // namespace
}  // namespace vexa
