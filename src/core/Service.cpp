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

// Gives the hardware back by `command` if `held` says that it is still to be done. A refused
// request is tried again at the next pass; an accepted one changes the holder, so it is made once.
void HandBack(vexAppSession& session, SessionHolder held, SessionCommand command) {
    if (session.Holder() != held) return;
    if (session.IsIdle()) session.Request(command, kSessionTimeMs);
    session.Release();
}

}  // namespace

void Service::Run() {
    if (StartUp()) {
        Loop();
    } else {
        Trace(kTraceLevel, "ERROR initializing VEXADevMgr.\n", kModule, kErrorLine);
    }
    ShutDown();
}

bool Service::StartUp() {
    SetTraceThreshold(kTraceThreshold);
    Trace(kTraceLevel, "VEXADevMgr version 1.37 is starting up.", kModule, kStartingLine);

    library = VEXA_Init();
    std::uint16_t major = 0;
    std::uint16_t minor = 0;
    VEXA_GetDLLVersion(library, &major, &minor);
    std::array<char, 100> version{};
    std::snprintf(version.data(), version.size(),
                  "VEXADevMgr is linked to libVEXA version %02d.%02d .", major, minor);
    Trace(kTraceLevel, version.data(), kModule, kVersionLine);
    VEXA_Diags_SetDebugTraceThreshold(library, kTraceThreshold);

    sessions.daq.Init("DAQ");
    sessions.splash.Init("SPLASH");
    sessions.fgen.Init("FGEN");

    daqLink.UseLibrary(library);
    mux.Init(library);
    HostVEXMuxController_Init(mux.Children());
    HostLink_Use(&hostLink);
    lastGeneration = mux.Children().ConnectionGeneration(HostLink_IsLinkUp());
    return HostLink_Open() == 1 && library != 0;
}

void Service::Loop() {
    while (!stopRequested) {
        HostLink_TakeInput();
        FollowConnection();
        if (mux.IsHostConnected()) {
            mux.Pass();
        } else {
            HandHardwareBack();
        }
        PollSessions();
        if (mux.IsHostConnected() && HostLink_BytesAvailable() != 0) continue;
        OSSleep(kPauseMs);
    }
}

void Service::FollowConnection() {
    const std::uint8_t linkUp = HostLink_IsLinkUp();
    const std::uint32_t generation = mux.Children().ConnectionGeneration(linkUp);
    if (generation != lastGeneration) mux.DisconnectCleanUp();
    if (linkUp == 0) {
        mux.DisconnectCleanUp();
    } else {
        mux.MarkConnected();
    }
    lastGeneration = generation;
}

void Service::HandHardwareBack() {
    HandBack(sessions.splash, SessionHolder::kActivated, SessionCommand::kDeactivate);
    HandBack(sessions.daq, SessionHolder::kDeactivated, SessionCommand::kActivate);
}

void Service::PollSessions() {
    sessions.daq.Poll();
    sessions.splash.Poll();
    sessions.fgen.Poll();
}

void Service::ShutDown() {
    Trace(kTraceLevel, "VEXADevMgr is shutting down.", kModule, kStoppingLine);
    mux.DisconnectCleanUp();
    HostLink_Close();
    daqLink.Close();
    sessions.daq.Terminate();
    sessions.splash.Terminate();
    sessions.fgen.Terminate();
    if (library != 0) VEXA_Uninit(library);
    library = 0;
}

}  // namespace vexa
