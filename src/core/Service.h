// The service: composes all modules, brings them up, runs the main loop and tears them down in a
// fixed order. Everything runs on the thread that calls Run.
#pragma once

#include <atomic>
#include <cstdint>

#include "daq/DAQIO.h"
#include "devices/HostLink.h"
#include "mux/HostMux.h"

namespace vexa {

// All state of the service. One static object per process.
class Service {
  public:
    // Start-up, main loop until the stop flag is raised, shutdown. A start-up that fails goes
    // straight to shutdown.
    void Run();

    // Raises the stop flag. From any thread or a signal handler.
    void Stop() { stopRequested = true; }

  private:
    bool StartUp();
    void Loop();
    void FollowConnection();
    void HandHardwareBack();
    void PollSessions();
    void ShutDown();

    std::atomic<bool> stopRequested{false};
    static_assert(std::atomic<bool>::is_always_lock_free, "raised from signal handlers");

    std::uint32_t library = 0;  // of the device-access library; 0: not available
    std::uint32_t lastGeneration = 0;
    HostLinkState hostLink;
    DAQIO daqLink;
    AppSessions sessions;
    HostMux mux{daqLink, sessions};
};

}  // namespace vexa
