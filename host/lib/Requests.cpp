#include "vexahost/Requests.h"

#include <algorithm>

#include "vexahost/protocol/Commands.h"
#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost {

namespace {

using vexa::ControllerCommand;

constexpr std::size_t kMaxPayload = vexa::kMaxPacketSize - vexa::kPacketHeaderSize;

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

Packet BuildControllerCommand(ChildId controller, std::uint8_t sequence, ControllerCommand command,
                              std::span<const std::uint8_t> arguments) {
    arguments = arguments.first(std::min(arguments.size(), kMaxControllerArguments));
    const std::size_t innerSize = vexa::kCommandOffset + 1 + arguments.size();
    Packet packet(vexa::kTypeTunnel, vexa::kTunnelHeaderSize + innerSize, sequence);
    vexa::StoreLe32(packet.Bytes(), vexa::kTunnelIdOffset, controller);
    const auto inner = packet.Bytes().subspan(vexa::kTunnelHeaderSize);
    inner[vexa::kTypeOffset] = vexa::kClassCommand;
    inner[vexa::kLengthOffset] = static_cast<std::uint8_t>(innerSize);
    inner[vexa::kSequenceOffset] = sequence;
    inner[vexa::kCommandOffset] = static_cast<std::uint8_t>(command);
    std::ranges::copy(arguments, inner.begin() + vexa::kCommandOffset + 1);
    vexa::SealPacket(inner);
    packet.Seal();
    return packet;
}

std::vector<std::uint8_t> OpenArguments(ChildId child, std::string_view name) {
    name = name.substr(0, kMaxDeviceName);
    auto arguments = CloseArguments(child);
    arguments.push_back(static_cast<std::uint8_t>(name.size() + 1));
    arguments.insert(arguments.end(), name.begin(), name.end());
    arguments.push_back(0);
    return arguments;
}

std::vector<std::uint8_t> CloseArguments(ChildId child) {
    std::vector<std::uint8_t> arguments(sizeof child);
    vexa::StoreLe32(arguments, 0, child);
    return arguments;
}

std::vector<std::uint8_t> ReopenArguments(ChildId controller, bool withDaq) {
    auto arguments = CloseArguments(controller);
    arguments.push_back(withDaq ? 1 : 0);
    return arguments;
}

}  // namespace vexahost
