// Start-up and shut-down: the order of library calls and printed lines; and the main loop's pauses.

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "core/Service.h"
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

    static int UseQueuedLink() {
        HostLink_Use(&queued->state);
        return 1;
    }
    static int FailToOpen() { return 0; }

    static inline QueuedHostLink* queued = nullptr;
    VirtualTime time;
    ScriptedLibraries& script = ScriptedLibraries::Get();
    QueuedHostLink link;
    Service service;
};

TEST_F(ServiceTest, StartsAndShutsDownInOrder) {
    EXPECT_EQ(Traced([&] { EXPECT_TRUE(service.StartUp(UseQueuedLink)); }),
              "VEXADevMgr(38) : VEXADevMgr version 1.37 is starting up.\n"
              "VEXADevMgr(43) : VEXADevMgr is linked to libVEXA version 03.12 .\n");
    EXPECT_EQ(script.TakeCalls(),
              (Calls{"VEXA_Init()", "VEXA_Diags_SetDebugTraceThreshold(9, 1)", "criInit(DAQ, 1)",
                     "criInit(SPLASH, 1)", "criInit(FGEN, 1)"}));
    script.attached[5] = "board";
    script.daqAnswer = DaqSyncAnswer();
    link.HostSends(OpenController(true));
    service.Pass();
    script.TakeCalls();
    EXPECT_EQ(Traced([&] { service.ShutDown(); }),
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
            Traced([&] { each.Run(libraryWorks ? FailToOpen : UseQueuedLink); });
        EXPECT_TRUE(
            text.ends_with("VEXADevMgr(128) : ERROR initializing VEXADevMgr.\n\n"
                           "VEXADevMgr(130) : VEXADevMgr is shutting down.\n"))
            << text;
        EXPECT_EQ(script.TakeCalls().back(),
                  libraryWorks ? "VEXA_Uninit(9)" : "criTerminate(FGEN, 1)");
    }
}

TEST_F(ServiceTest, PausesTenMillisecondsWhenNothingWaits) {
    const std::uint32_t start = OSGetMilliseconds();
    std::thread stopper([&] {
        while (OSGetMilliseconds() - start < 100) std::this_thread::yield();
        EXPECT_FALSE(service.Stop());
        EXPECT_TRUE(service.Stop()) << "asked for before";
    });
    VirtualTime::TakeSleeps();
    Traced([&] { service.Run(UseQueuedLink); });
    stopper.join();
    const auto sleeps = VirtualTime::TakeSleeps();
    EXPECT_GE(sleeps.size(), 10U);
    EXPECT_EQ(std::ranges::count(sleeps, 10000), static_cast<long>(sleeps.size()));
}

}  // namespace
}  // namespace vexa
