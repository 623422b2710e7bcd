// What the main loop goes round: sessions, DAQ link and multiplexer, and the order in which each
// pass drives them. Main thread only.
#pragma once

#include <cstdint>

#include "daq/DAQIO.h"
#include "mux/HostMux.h"

namespace vexa {

class ServiceLoop {
  public:
    // Opens the sessions and starts with no host; `library` is the handle for opening devices.
    void Init(std::uint32_t library);

    // One pass. True when bytes of a connected host wait, so that the next pass is to follow at
    // once.
    bool Pass();

    // If a host was connected: closes all that it had opened.
    void DisconnectCleanUp() { mux.DisconnectCleanUp(); }

    // The rest of shutting down, once the host link is closed.
    void ShutDown();

  private:
    void FollowConnection();
    void HandHardwareBack();
    void PollSessions();

    std::uint32_t lastGeneration = 0;
    DAQIO daqLink;
    AppSessions sessions;
    HostMux mux{daqLink, sessions};
};

}  // namespace vexa
