#include "mux/HostMux.h"

#include <algorithm>
#include <iterator>

#include "devices/HostLink.h"

namespace vexa {

namespace {

// Whether the inner packet `command` asks for the controller to be opened anew: by its own command,
// or as a child of its name.
bool ReopensController(const std::uint8_t* command) {
    switch (static_cast<ControllerCommand>(command[kCommandOffset])) {
        case ControllerCommand::kReopenController:
            return true;
        case ControllerCommand::kOpenChild:
            return command[kCommandNameLengthOffset] == sizeof kControllerName &&
                   std::equal(std::begin(kControllerName), std::end(kControllerName),
                              command + kCommandNameOffset);
        default:
            return false;
    }
}

}  // namespace

void HostMux::Init(std::uint32_t library) {
    stream.Init();
    replies.ResetCounter();
    controller.Init(library);
}

void HostMux::Pass() {
    if (stream.ParsePass()) replies.ResetCounter();
    if (stream.HasPacket()) {
        Route(stream.Packet());
        stream.Release();
    }
    controller.Step();
}

void HostMux::Route(const std::uint8_t* packet) {
    switch (TypeClass(packet[kTypeOffset])) {
        case kClassCommand:
            return RouteCommand(packet);
        case kClassTunnel:
            return RouteTunnel(packet);
        default:
            return;
    }
}

void HostMux::RouteCommand(const std::uint8_t* packet) {
    if (daq.IsOpen()) {
        daq.Write(packet, packet[kLengthOffset]);
    } else if (packet[kCommandOffset] == kInitialSyncCommand) {
        replies.SendInitialSyncReply(packet[kSequenceOffset]);
    } else {
        replies.SendMultiplexerError(packet[kCommandOffset], packet[kSequenceOffset],
                                     ReplyError::kDaqLinkClosed);
    }
}

void HostMux::RouteTunnel(const std::uint8_t* packet) {
    const std::uint8_t* payload = packet + kTunnelHeaderSize;
    if (ReopensController(payload)) return controller.Reopen(packet);

    MuxChild child;
    const bool holdsId = packet[kLengthOffset] >= kTunnelHeaderSize;
    if (!holdsId || !children.Find(LoadLe32(packet + kTunnelIdOffset), child)) {
        DumpHostInput(packet, packet[kLengthOffset], "Discarding orphaned tunnel packet.");
    } else if (child.is_controller != 0) {
        controller.Take(packet);
    } else if (child.write_fn != nullptr) {
        child.write_fn(payload,
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
    controller.CloseAll();
    HostLink_Purge();
    children.MarkHostConnected(false);
}

}  // namespace vexa
