// Builds every packet that a host sends, checksum included. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "vexahost/Packet.h"
#include "vexahost/protocol/Commands.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost {

// Most bytes that one tunnel packet carries towards a child.
inline constexpr std::size_t kMaxRequestToChild = vexa::kMaxPacketSize - vexa::kTunnelHeaderSize;

// Most bytes after the command byte of a multiplexer command.
inline constexpr std::size_t kMaxCommandPayload = vexa::kMaxPacketSize - vexa::kCommandOffset - 1;

// Most characters of a device name in an open-child command.
inline constexpr std::size_t kMaxDeviceName = 219;

// Most bytes after the command byte of a controller command.
inline constexpr std::size_t kMaxControllerArguments =
    kMaxRequestToChild - vexa::kCommandOffset - 1;

// 25 bytes that make the unit drop a half-received packet and answer with its signature.
[[nodiscard]] Packet BuildInitialSync(std::uint8_t sequence);

// A packet of class 0x40: for the DAQ while the DAQ link is open, else for the service. `payload`
// follows the command byte. Nothing when it has more than kMaxCommandPayload bytes.
[[nodiscard]] std::optional<Packet> BuildMultiplexerCommand(std::uint8_t sequence,
                                                            std::uint8_t command,
                                                            std::span<const std::uint8_t> payload);

// A packet of any type, e.g. one for a device; nothing when `payload` has more than 251 bytes.
[[nodiscard]] std::optional<Packet> BuildPacket(std::uint8_t type, std::uint8_t sequence,
                                                std::span<const std::uint8_t> payload);

// Wraps `inner` for a child; nothing when it has more than kMaxRequestToChild bytes.
[[nodiscard]] std::optional<Packet> BuildTunnel(ChildId child, std::uint8_t sequence,
                                                std::span<const std::uint8_t> inner);

// A command to the controller, with `arguments` after the command byte. At most
// kMaxControllerArguments bytes of them are used.
[[nodiscard]] Packet BuildControllerCommand(ChildId controller, std::uint8_t sequence,
                                            vexa::ControllerCommand command,
                                            std::span<const std::uint8_t> arguments = {});

// Arguments of kOpenChild. With the controller's id and vexa::kControllerName it opens the
// controller with the DAQ. At most kMaxDeviceName characters of the name are used.
[[nodiscard]] std::vector<std::uint8_t> OpenArguments(ChildId child, std::string_view name);

// Arguments of kCloseChild. The controller's own id closes everything.
[[nodiscard]] std::vector<std::uint8_t> CloseArguments(ChildId child);

// Arguments of kReopenController; with `withDaq` the DAQ link is brought up as well.
[[nodiscard]] std::vector<std::uint8_t> ReopenArguments(ChildId controller, bool withDaq);

}  // namespace vexahost
