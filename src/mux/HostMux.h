// One pass of the multiplexer: parse a packet out of the host's bytes, route it to the service, the
// DAQ or a child, and let the controller go on with its command. Also follows the coming and going
// of the host. Main thread only.
#pragma once

#include <cstdint>

#include "mux/HostPacketStream.h"
#include "mux/MuxController.h"
#include "mux/MuxReplies.h"

namespace vexa {

class HostMux {
  public:
    HostMux(DAQIO& daqLink, AppSessions& sessions)
        : daq(daqLink), replies(children), controller(children, replies, daqLink, sessions) {}

    // Empties parser, replies and controller; `library` is the handle for opening devices.
    void Init(std::uint32_t library);

    void Pass();

    // The children, to be handed to HostVEXMuxController_Init.
    MuxChildren& Children() { return children; }

    // Marks the host as connected if the transport is open; true when it is marked.
    bool MarkConnected();
    [[nodiscard]] bool IsHostConnected() const { return children.IsHostConnected(); }

    // If a host was connected: closes all children, drops output that is queued, clears the mark.
    void DisconnectCleanUp();

  private:
    void Route(const std::uint8_t* packet);
    void RouteCommand(const std::uint8_t* packet);
    void RouteTunnel(const std::uint8_t* packet);

    MuxChildren children;
    DAQIO& daq;
    HostPacketStream stream;
    MuxReplies replies;
    MuxController controller;
};

}  // namespace vexa
