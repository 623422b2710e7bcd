#include "vexahost/Requests.h"

#include <algorithm>

#include "vexahost/protocol/Commands.h"
#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost {

namespace {

using vexa::ControllerCommand;

constexpr std::size_t kMaxPayload = vexa::kMaxPacketSize - vexa::kPacketHeaderSize;

// A controller command in its tunnel packet: the inner packet has `innerSize` bytes, and both carry
// the sequence number. `fill` writes the inner packet's fields behind the command byte.
template <typename Fill>
Packet ControllerPacket(ChildId controller, std::uint8_t sequence, ControllerCommand command,
                        std::size_t innerSize, Fill fill) {
    Packet packet(vexa::kTypeTunnel, vexa::kTunnelHeaderSize + innerSize, sequence);
    vexa::StoreLe32(packet.Bytes(), vexa::kTunnelIdOffset, controller);
    const auto inner = packet.Bytes().subspan(vexa::kTunnelHeaderSize);
    inner[vexa::kTypeOffset] = vexa::kClassCommand;
    inner[vexa::kLengthOffset] = static_cast<std::uint8_t>(innerSize);
    inner[vexa::kSequenceOffset] = sequence;
    inner[vexa::kCommandOffset] = static_cast<std::uint8_t>(command);
    fill(inner);
    vexa::SealPacket(inner);
    packet.Seal();
    return packet;
}

// A name in an open command: its length, counting the terminating zero byte, then its characters.
void StoreName(std::span<std::uint8_t> inner, std::string_view name) {
    inner[vexa::kCommandNameLengthOffset] = static_cast<std::uint8_t>(name.size() + 1);
    std::ranges::copy(name, inner.begin() + vexa::kCommandNameOffset);
}

Packet OpenByName(ChildId controller, std::uint8_t sequence, ChildId child, std::string_view name) {
    return ControllerPacket(controller, sequence, ControllerCommand::kOpenChild,
                            vexa::kCommandNameOffset + name.size() + 1,
                            [&](std::span<std::uint8_t> inner) {
                                vexa::StoreLe32(inner, vexa::kCommandChildIdOffset, child);
                                StoreName(inner, name);
                            });
}

}  // namespace

Packet BuildInitialSync(std::uint8_t sequence) {
    Packet packet(vexa::kClassCommand, vexa::kInitialSyncSize, sequence);
    vexa::BuildInitialSync(packet.Bytes().first<vexa::kInitialSyncSize>(), sequence);
    return packet;
}

std::optional<Packet> BuildPacket(std::uint8_t type, std::uint8_t sequence,
                                  std::span<const std::uint8_t> payload) {
    if (payload.size() > kMaxPayload) return std::nullopt;
    Packet packet(type, vexa::kPacketHeaderSize + payload.size(), sequence);
    std::ranges::copy(payload, packet.Bytes().begin() + vexa::kPayloadOffset);
    packet.Seal();
    return packet;
}

std::optional<Packet> BuildMultiplexerCommand(std::uint8_t sequence, std::uint8_t command,
                                              std::span<const std::uint8_t> payload) {
    if (payload.size() > kMaxCommandPayload) return std::nullopt;
    Packet packet(vexa::kClassCommand, vexa::kPacketHeaderSize + 1 + payload.size(), sequence);
    packet.Bytes()[vexa::kCommandOffset] = command;
    std::ranges::copy(payload, packet.Bytes().begin() + vexa::kCommandOffset + 1);
    packet.Seal();
    return packet;
}

std::optional<Packet> BuildTunnel(ChildId child, std::uint8_t sequence,
                                  std::span<const std::uint8_t> inner) {
    if (inner.size() > kMaxRequestToChild) return std::nullopt;
    Packet packet(vexa::kTypeTunnel, vexa::kTunnelHeaderSize + inner.size(), sequence);
    vexa::StoreLe32(packet.Bytes(), vexa::kTunnelIdOffset, child);
    std::ranges::copy(inner, packet.Bytes().begin() + vexa::kTunnelHeaderSize);
    packet.Seal();
    return packet;
}

Packet BuildOpenController(ChildId controller, std::uint8_t sequence) {
    return OpenByName(controller, sequence, controller, vexa::kControllerName);
}

Packet BuildReopenController(ChildId controller, bool withDaq, std::uint8_t sequence) {
    return ControllerPacket(controller, sequence, ControllerCommand::kReopenController,
                            vexa::kCommandNameLengthOffset + 1, [&](std::span<std::uint8_t> inner) {
                                vexa::StoreLe32(inner, vexa::kCommandChildIdOffset, controller);
                                inner[vexa::kCommandNameLengthOffset] = withDaq ? 1 : 0;
                            });
}

std::optional<Packet> BuildOpenChild(ChildId controller, std::uint8_t sequence, ChildId child,
                                     std::string_view name) {
    if (name.size() > kMaxDeviceName) return std::nullopt;
    return OpenByName(controller, sequence, child, name);
}

Packet BuildCloseChild(ChildId controller, std::uint8_t sequence, ChildId child) {
    return ControllerPacket(controller, sequence, ControllerCommand::kCloseChild,
                            vexa::kCommandChildIdOffset + sizeof child,
                            [&](std::span<std::uint8_t> inner) {
                                vexa::StoreLe32(inner, vexa::kCommandChildIdOffset, child);
                            });
}

Packet BuildQueryDaqApplication(ChildId controller, std::uint8_t sequence) {
    return ControllerPacket(controller, sequence, ControllerCommand::kQueryDaqApplication,
                            vexa::kCommandOffset + 1, [](std::span<std::uint8_t>) {});
}

Packet BuildTakeDaqOver(ChildId controller, std::uint8_t sequence) {
    return ControllerPacket(controller, sequence, ControllerCommand::kTakeDaqOver,
                            vexa::kCommandOffset + 1, [](std::span<std::uint8_t>) {});
}

}  // namespace vexahost
