// The service: composes all modules, brings them up, runs the main loop and shuts them down in a
// fixed order.
#pragma once

#include <atomic>
#include <cstdint>

#include "daq/DAQIO.h"
#include "devices/HostLink.h"
#include "mux/HostMux.h"
#include "sessions/vexAppSession.h"

namespace vexa {

// All state of the service; one static object per process. Main thread only, except Stop.
class Service {
  public:
    // Opens the host link, as HostLink_Open does: 1 on success.
    using OpenLink = int (*)();

    // Start-up, main loop until Stop, shut-down. A start-up that fails goes straight to shut-down.
    void Run(OpenLink openLink = HostLink_Open);

    // Ends the main loop after its current pass. Any thread, or a signal handler. True when it was
    // asked for before.
    bool Stop() { return stopRequested.exchange(true); }

    // What Run is made of, for tests that drive the service pass by pass. StartUp returns false
    // when the service cannot run; ShutDown follows in any case. Pass returns true when bytes of a
    // connected host wait, so that the next pass is to follow at once.
    bool StartUp(OpenLink openLink);
    bool Pass();
    void ShutDown();

  private:
    void TraceLibraryVersion() const;
    void FollowConnection();
    void ReturnHeldHardware();

    std::atomic<bool> stopRequested{false};
    static_assert(std::atomic<bool>::is_always_lock_free, "written by signal handlers");

    std::uint32_t library = 0;  // handle of the device-access library; 0: not available
    std::uint32_t lastGeneration = 0;
    HostLinkState hostLink;
    AppSessions sessions;
    DAQIO daqLink{library};
    HostMux mux{library, daqLink, sessions};
};

}  // namespace vexa
