// The service: composes all modules, brings them up, runs the main loop and tears them down in a
// fixed order. Everything runs on the thread that calls Run.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/ServiceLoop.h"
#include "devices/HostLink.h"

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
    void ShutDown();

    std::atomic<bool> stopRequested{false};
    static_assert(std::atomic<bool>::is_always_lock_free, "raised from signal handlers");

    std::uint32_t library = 0;  // of the device-access library; 0: not available
    HostLinkState hostLink;
    ServiceLoop loop;
};

}  // namespace vexa
