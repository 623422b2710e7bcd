#include "core/ServiceLoop.h"

#include "devices/HostLink.h"

namespace vexa {

namespace {

constexpr std::uint32_t kSessionTimeMs = 1000;

// Gives the hardware back by `command` if `held` says that it is still to be done. A refused
// request is tried again at the next pass; an accepted one changes the holder, so it is made once.
void HandBack(vexAppSession& session, SessionHolder held, SessionCommand command) {
    if (session.Holder() != held) return;
    if (session.IsIdle()) session.Request(command, kSessionTimeMs);
    session.Release();
}

}  // namespace

void ServiceLoop::Init(std::uint32_t library) {
    sessions.daq.Init("DAQ");
    sessions.splash.Init("SPLASH");
    sessions.fgen.Init("FGEN");

    daqLink.UseLibrary(library);
    mux.Init(library);
    HostVEXMuxController_Init(mux.Children());
    lastGeneration = mux.Children().ConnectionGeneration(HostLink_IsLinkUp());
}

bool ServiceLoop::Pass() {
    HostLink_TakeInput();
    FollowConnection();
    if (mux.IsHostConnected()) {
        mux.Pass();
    } else {
        HandHardwareBack();
    }
    PollSessions();
    return mux.IsHostConnected() && HostLink_BytesAvailable() != 0;
}

void ServiceLoop::FollowConnection() {
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

void ServiceLoop::HandHardwareBack() {
    HandBack(sessions.splash, SessionHolder::kActivated, SessionCommand::kDeactivate);
    HandBack(sessions.daq, SessionHolder::kDeactivated, SessionCommand::kActivate);
}

void ServiceLoop::PollSessions() {
    sessions.daq.Poll();
    sessions.splash.Poll();
    sessions.fgen.Poll();
}

void ServiceLoop::ShutDown() {
    daqLink.Close();
    sessions.daq.Terminate();
    sessions.splash.Terminate();
    sessions.fgen.Terminate();
}

}  // namespace vexa
