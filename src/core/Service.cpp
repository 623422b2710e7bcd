#include "core/Service.h"

#include <array>
#include <cstdio>

#include "VEXA.h"
#include "foundation/GUtils.h"

namespace vexa {

namespace {

constexpr char kModule[] = "VEXADevMgr";
constexpr int kStartingLine = 38;
constexpr int kVersionLine = 43;
constexpr int kErrorLine = 128;
constexpr int kStoppingLine = 130;

constexpr int kTraceThreshold = 1;
constexpr std::uint32_t kPauseMs = 10;
constexpr std::uint32_t kSessionTimeMs = 1000;

// Asks for the hardware by `command` while `held` says that the application has not got it back. A
// refused request is made again in the next pass; an accepted one changes the holder.
void ReturnIfHeld(vexAppSession& session, SessionHolder held, SessionCommand command) {
    if (session.Holder() != held) return;
    if (session.IsIdle()) session.Request(command, kSessionTimeMs);
    session.Release();
}

}  // namespace

void Service::Run(OpenLink openLink) {
    if (StartUp(openLink)) {
        while (!stopRequested) {
            if (!Pass()) OSSleep(kPauseMs);
        }
    }
    ShutDown();
}

bool Service::StartUp(OpenLink openLink) {
    SetTraceThreshold(kTraceThreshold);
    Trace(kTraceLevel, "VEXADevMgr version 1.37 is starting up.", kModule, kStartingLine);

    library = VEXA_Init();
    TraceLibraryVersion();
    VEXA_Diags_SetDebugTraceThreshold(library, kTraceThreshold);

    sessions.Init();
    mux.Init();
    HostLink_Use(&hostLink);
    lastGeneration = mux.Children().ConnectionGeneration(HostLink_IsLinkUp());

    if (openLink() == 1 && library != 0) return true;
    Trace(kTraceLevel, "ERROR initializing VEXADevMgr.\n", kModule, kErrorLine);
    return false;
}

void Service::ShutDown() {
    Trace(kTraceLevel, "VEXADevMgr is shutting down.", kModule, kStoppingLine);
    mux.DisconnectCleanUp();
    HostLink_Close();
    daqLink.Close();
    sessions.Terminate();
    if (library != 0) VEXA_Uninit(library);
    library = 0;
}

bool Service::Pass() {
    HostLink_TakeInput();
    FollowConnection();
    if (mux.IsHostConnected()) {
        mux.Pass();
    } else {
        ReturnHeldHardware();
    }
    sessions.Poll();
    return mux.IsHostConnected() && HostLink_BytesAvailable() != 0;
}

void Service::TraceLibraryVersion() const {
    std::uint16_t major = 0;
    std::uint16_t minor = 0;
    VEXA_GetDLLVersion(library, &major, &minor);
    std::array<char, 100> version{};
    std::snprintf(version.data(), version.size(),
                  "VEXADevMgr is linked to libVEXA version %02d.%02d .", major, minor);
    Trace(kTraceLevel, version.data(), kModule, kVersionLine);
}

void Service::FollowConnection() {
    const std::uint8_t linkUp = HostLink_IsLinkUp();
    const std::uint32_t generation = mux.Children().ConnectionGeneration(linkUp);
    // What an earlier host opened is closed before a new host is marked: children never outlive a
    // change of the link.
    if (generation != lastGeneration || linkUp == 0) mux.DisconnectCleanUp();
    if (linkUp != 0) mux.MarkConnected();
    lastGeneration = generation;
}

// No host is connected: whatever a host took from the applications goes back to them.
void Service::ReturnHeldHardware() {
    ReturnIfHeld(sessions.splash, SessionHolder::kActivated, SessionCommand::kDeactivate);
    ReturnIfHeld(sessions.daq, SessionHolder::kDeactivated, SessionCommand::kActivate);
}

}  // namespace vexa
