// Builds every packet that a host sends. All come out with their checksums; none fails but where
// it says so.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "vexahost/Packet.h"
#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost {

/// Most bytes that one tunnel packet carries towards a child.
inline constexpr std::size_t kMaxRequestToChild = vexa::kMaxPacketSize - vexa::kTunnelHeaderSize;

/// Most bytes behind the command byte of a multiplexer command.
inline constexpr std::size_t kMaxCommandPayload = vexa::kMaxPacketSize - vexa::kCommandOffset - 1;

/// Most characters of a device name in an open-child command.
inline constexpr std::size_t kMaxDeviceName = 219;

/// 25 bytes that make the unit drop a half-received packet and answer with its signature.
[[nodiscard]] Packet BuildInitialSync(std::uint8_t sequence);

/// A packet of class 0x40: to the DAQ while the DAQ link is open, else to the service. Nothing when
/// `payload` (what follows the command byte) has more than
/// kMaxCommandPayload bytes.
[[nodiscard]] std::optional<Packet> BuildMultiplexerCommand(std::uint8_t sequence,
                                                            std::uint8_t command,
                                                            std::span<const std::uint8_t> payload);

/// A packet of any type, e.g. one for a device; nothing when `payload` has more than 251 bytes.
[[nodiscard]] std::optional<Packet> BuildPacket(std::uint8_t type, std::uint8_t sequence,
                                                std::span<const std::uint8_t> payload);

/// Wraps `inner` for a child; nothing when it has more than kMaxRequestToChild bytes.
[[nodiscard]] std::optional<Packet> BuildTunnel(ChildId child, std::uint8_t sequence,
                                                std::span<const std::uint8_t> inner);

/// Opens the controller under `controller` and brings the DAQ link up, by the controller's name.
[[nodiscard]] Packet BuildOpenController(ChildId controller, std::uint8_t sequence);

/// Opens the controller under `controller`; with `withDaq` the DAQ link is brought up as well.
[[nodiscard]] Packet BuildReopenController(ChildId controller, bool withDaq, std::uint8_t sequence);

/// Opens the device `name` as `child`; nothing when the name has more than kMaxDeviceName bytes.
[[nodiscard]] std::optional<Packet> BuildOpenChild(ChildId controller, std::uint8_t sequence,
                                                   ChildId child, std::string_view name);

[[nodiscard]] Packet BuildCloseChild(ChildId controller, std::uint8_t sequence, ChildId child);

/// Asks whether the unit's own DAQ application holds the hardware.
[[nodiscard]] Packet BuildQueryDaqApplication(ChildId controller, std::uint8_t sequence);

/// Takes the acquisition hardware from the unit's applications and brings the DAQ link up.
[[nodiscard]] Packet BuildTakeDaqOver(ChildId controller, std::uint8_t sequence);

}  // namespace vexahost
