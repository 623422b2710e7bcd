#include "mux/HostMux.h"

#include "devices/HostLink.h"
#include "protocol/Commands.h"
#include "protocol/InitialSync.h"

namespace vexa {

bool HostMux::Init() {
    stream.Init();
    replies.ResetCounter();
    controller.Init();
    return HostVEXMuxController_Init(children);
}

void HostMux::Pass() {
    if (stream.ParsePass()) replies.ResetCounter();
    if (stream.HasPacket()) {
        Route(stream.Packet());
        stream.Release();
    }
    controller.Step();
}

void HostMux::Route(PacketBuffer packet) {
    switch (TypeClass(packet[kTypeOffset])) {
        case kClassCommand:
            return RouteCommand(packet);
        case kClassTunnel:
            return RouteTunnel(packet);
        default:
            return;
    }
}

void HostMux::RouteCommand(PacketBuffer packet) {
    if (daq.IsOpen()) {
        daq.Write(packet.data(), packet[kLengthOffset]);
    } else if (packet[kCommandOffset] == kInitialSyncCommand) {
        replies.SendInitialSyncReply(packet[kSequenceOffset]);
    } else {
        replies.SendMultiplexerError(packet[kCommandOffset], packet[kSequenceOffset],
                                     ReplyError::kDaqLinkClosed);
    }
}

void HostMux::RouteTunnel(PacketBuffer packet) {
    if (ReopensController(InnerPacket(packet))) return controller.Reopen(packet);

    MuxChild child;
    const bool holdsId = packet[kLengthOffset] >= kTunnelHeaderSize;
    if (!holdsId || !children.Find(LoadLe32(packet, kTunnelIdOffset), child)) {
        DumpHostInput(packet.data(), packet[kLengthOffset], "Discarding orphaned tunnel packet.");
    } else if (child.is_controller != 0) {
        controller.Accept(packet);
    } else if (child.write_fn != nullptr) {
        child.write_fn(InnerPacket(packet).data(),
                       static_cast<std::int32_t>(packet[kLengthOffset] - kTunnelHeaderSize),
                       child.stream);
    }
}

bool HostMux::MarkConnected() {
    if (children.IsHostConnected()) return true;
    return HostLink_IsOpen() != 0 && children.MarkHostConnected(true);
}

void HostMux::DisconnectCleanUp() {
    if (!children.IsHostConnected()) return;
    // The streams are closed first, so that nothing they send is queued after the purge; the mark
    // goes last, because without it this function does nothing.
    controller.CloseAll();
    HostLink_Purge();
    children.MarkHostConnected(false);
}

}  // namespace vexa
