#include "vexahost/Describe.h"

#include <cstdio>

#include "vexahost/Error.h"
#include "vexahost/PacketReader.h"
#include "vexahost/Requests.h"
#include "vexahost/protocol/Commands.h"
#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"
#include "vexahost/protocol/Replies.h"

namespace vexahost {

Error RefusedError(const std::string& what, std::uint8_t command, std::uint8_t code) {
    return {ErrorKind::kRefused,
            what + " was refused: error " + std::to_string(code) + ", " +
                std::string(vexa::ErrorMeaning(command, code)),
            command, code};
}

namespace {

using Bytes = std::span<const std::uint8_t>;

std::string Hex(unsigned value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", value);
    return text;
}

std::string Count(std::size_t bytes) {
    return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
}

std::string CommandName(std::uint8_t command) {
    const std::string_view name = vexa::ControllerCommandName(command);
    return name.empty() ? "command " + Hex(command) : std::string(name);
}

bool IsPacketOf(Bytes bytes, std::size_t least) {
    return bytes.size() >= least && bytes[vexa::kLengthOffset] == bytes.size();
}

// A command is recognised by its content, as the address alone does not tell which child is the
// controller. A close command with its own address closes the controller.
std::string DescribeControllerCommand(std::uint32_t address, Bytes inner) {
    const std::uint8_t command = inner[vexa::kCommandOffset];
    std::string name = CommandName(command);
    if (inner.size() < vexa::kCommandNameLengthOffset) return name;
    const std::uint32_t id = vexa::LoadLe32(inner, vexa::kCommandChildIdOffset);
    switch (static_cast<vexa::ControllerCommand>(command)) {
        case vexa::ControllerCommand::kOpenChild:
            if (inner.size() < vexa::kCommandNameOffset) return name + " " + Hex(id);
            return vexa::ReopensController(inner)
                       ? "open controller " + Hex(id) + ", with DAQ, by name"
                       : name + " " + Hex(id) + " \"" + DeviceNameIn(inner) + "\"";
        case vexa::ControllerCommand::kCloseChild:
            return (id == address ? "close controller " : name + " ") + Hex(id);
        case vexa::ControllerCommand::kReopenController: {
            const bool daq = inner.size() > vexa::kCommandNameLengthOffset &&
                             inner[vexa::kCommandNameLengthOffset] != 0;
            return name + " " + Hex(id) + (daq ? ", with DAQ" : ", without DAQ");
        }
        default:
            return name;
    }
}

bool IsControllerCommand(Bytes inner) {
    return IsPacketOf(inner, vexa::kCommandOffset + 1) &&
           vexa::TypeClass(inner[vexa::kTypeOffset]) == vexa::kClassCommand &&
           vexa::IsControllerCommand(inner[vexa::kCommandOffset]);
}

std::string DescribeToUnit(Bytes packet) {
    const std::uint8_t typeClass = vexa::TypeClass(packet[vexa::kTypeOffset]);
    if (typeClass == vexa::kClassTunnel && packet.size() >= vexa::kTunnelHeaderSize) {
        const std::uint32_t address = vexa::LoadLe32(packet, vexa::kTunnelIdOffset);
        const Bytes inner = packet.subspan(vexa::kTunnelHeaderSize);
        if (IsControllerCommand(inner)) return DescribeControllerCommand(address, inner);
        return Count(inner.size()) + " to child " + Hex(address);
    }
    if (typeClass == vexa::kClassCommand && packet.size() > vexa::kCommandOffset) {
        const std::uint8_t command = packet[vexa::kCommandOffset];
        return command == vexa::kInitialSyncCommand ? "initial sync"
                                                    : "multiplexer command " + Hex(command);
    }
    return "packet of type " + Hex(packet[vexa::kTypeOffset]);
}

// A reply of 7 bytes: acknowledgement, result or error.
std::string DescribeReply(Bytes reply, const std::string& commandName) {
    const std::uint8_t code = reply[vexa::kReplyCodeOffset];
    const std::string sequence =
        " (request " + std::to_string(reply[vexa::kReplyRequestSequenceOffset]) + ")";
    if (reply[vexa::kTypeOffset] == vexa::kTypeError) {
        return commandName + sequence + ": error " + std::to_string(code) + ", " +
               std::string(vexa::ErrorMeaning(reply[vexa::kCommandOffset], code));
    }
    const bool hasResult = reply[vexa::kCommandOffset] ==
                           static_cast<std::uint8_t>(vexa::ControllerCommand::kQueryDaqApplication);
    return commandName + sequence + (hasResult ? ": result " + std::to_string(code) : ": done");
}

std::string DescribeFromUnit(Bytes packet) {
    const std::uint8_t type = packet[vexa::kTypeOffset];
    if (vexa::TypeClass(type) == vexa::kClassTunnel && packet.size() >= vexa::kTunnelHeaderSize) {
        const Bytes inner = packet.subspan(vexa::kTunnelHeaderSize);
        if (vexa::IsServiceReply(inner)) {
            return DescribeReply(inner, CommandName(inner[vexa::kCommandOffset]));
        }
        return Count(inner.size()) + " from child " +
               Hex(vexa::LoadLe32(packet, vexa::kTunnelIdOffset));
    }
    if (vexa::IsInitialSyncReply(packet)) {
        return "initial-sync reply (request " +
               std::to_string(packet[vexa::kInitialSyncReplySequenceOffset]) + ")";
    }
    if (vexa::IsServiceReply(packet)) {
        return DescribeReply(packet, "multiplexer command " + Hex(packet[vexa::kCommandOffset]));
    }
    if (vexa::TypeClass(type) == vexa::kClassDaq) {
        return vexa::IsDaqReply(packet)
                   ? "DAQ: " + DescribeReply(packet, "command " + Hex(packet[vexa::kCommandOffset]))
                   : "DAQ packet of " + Count(packet.size());
    }
    return "packet of type " + Hex(type);
}

}  // namespace

std::string DeviceNameIn(std::span<const std::uint8_t> inner) {
    std::string name;
    if (inner.size() <= vexa::kCommandNameOffset) return name;
    for (const std::uint8_t byte : inner.subspan(vexa::kCommandNameOffset)) {
        if (byte == 0 || name.size() == inner[vexa::kCommandNameLengthOffset]) break;
        name += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '?';
    }
    return name;
}

std::string HexText(std::span<const std::uint8_t> bytes, std::size_t most) {
    std::string text;
    for (const std::uint8_t byte : bytes.first(std::min(most, bytes.size()))) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        if (!text.empty()) text += ' ';
        text += digits;
    }
    return bytes.size() > most ? text + " .." : text;
}

std::string DescribePacket(Direction direction, std::span<const std::uint8_t> packet) {
    if (packet.size() < vexa::kPacketHeaderSize) return "fragment of " + Count(packet.size());
    std::string text =
        direction == Direction::kToUnit ? DescribeToUnit(packet) : DescribeFromUnit(packet);
    const std::size_t length = packet[vexa::kLengthOffset];
    if (length != packet.size()) {
        text += " (length byte says " + std::to_string(length) + ")";
    } else if (packet[vexa::kChecksumOffset] != vexa::PacketChecksum(packet)) {
        text += " (checksum WRONG)";
    }
    return text;
}

}  // namespace vexahost
