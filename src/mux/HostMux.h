// One pass of the multiplexer: parse a packet out of the host's bytes, route it to the service, the
// DAQ or a child, and execute one step of the controller's command. Also follows whether a host is
// connected. Main thread only.
#pragma once

#include <cstdint>

#include "mux/HostPacketStream.h"
#include "mux/MuxController.h"
#include "mux/MuxReplies.h"

namespace vexa {

class HostMux {
  public:
    // `library` is the handle for opening devices; its value may be set later, before the first
    // Pass.
    HostMux(const std::uint32_t& library, DAQIO& daqLink, AppSessions& sessions)
        : daq(daqLink),
          replies(children),
          controller(library, children, replies, daqLink, sessions) {}

    // Empties parser, replies and controller, then HostVEXMuxController_Init. False when that
    // failed.
    bool Init();

    void Pass();

    MuxChildren& Children() { return children; }

    // Marks the host as connected if the transport is open; true when it is marked.
    bool MarkConnected();
    [[nodiscard]] bool IsHostConnected() const { return children.IsHostConnected(); }

    // If a host was connected: closes all children, drops output that is queued, clears the mark.
    void DisconnectCleanUp();

  private:
    void Route(PacketBuffer packet);
    void RouteCommand(PacketBuffer packet);
    void RouteTunnel(PacketBuffer packet);

    MuxChildren children;
    DAQIO& daq;
    HostPacketStream stream;
    MuxReplies replies;
    MuxController controller;
};

}  // namespace vexa
