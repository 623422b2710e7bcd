// The commands of the control channel, the child named "Controller": each is the inner packet of a
// tunnel packet, and byte 4 says which it is.
//
//   0      1        2         3          4         5 .. 8     9             10 ..
//  +------+--------+---------+----------+---------+----------+-------------+----------------
//  | 0x40 | length | sequence| checksum | command | child id | name length | device name
//  +------+--------+---------+----------+---------+----------+-------------+----------------
//                                                 | close: as far as the id;
//                                                 | query, take over: nothing
#pragma once

#include <array>
#include <string_view>

#include "Packet.h"

namespace vexa {

enum class ControllerCommand : std::uint8_t {
    kOpenChild = 0x70,
    kCloseChild = 0x71,
    kReopenController = 0x72,
    kQueryDaqApplication = 0x73,
    kTakeDaqOver = 0x74,
};

// Every command with its name in words.
struct NamedCommand {
    ControllerCommand command;
    std::string_view name;
};
inline constexpr std::array<NamedCommand, 5> kControllerCommands = {{
    {ControllerCommand::kOpenChild, "open child"},
    {ControllerCommand::kCloseChild, "close child"},
    {ControllerCommand::kReopenController, "open controller"},
    {ControllerCommand::kQueryDaqApplication, "query DAQ application"},
    {ControllerCommand::kTakeDaqOver, "take DAQ over"},
}};

// Offsets in the inner packet.
inline constexpr std::size_t kCommandChildIdOffset = 5;  // 32-bit
// The length counts the terminating zero byte. In kReopenController it is a flag: 0 leaves the DAQ
// link closed.
inline constexpr std::size_t kCommandNameLengthOffset = 9;
inline constexpr std::size_t kCommandNameOffset = 10;

inline constexpr std::string_view kControllerName = "Controller";  // sent with length 11

// The name of a command, empty for a number that is none.
[[nodiscard]] constexpr std::string_view ControllerCommandName(std::uint8_t number) {
    for (const NamedCommand& known : kControllerCommands) {
        if (static_cast<std::uint8_t>(known.command) == number) return known.name;
    }
    return {};
}

[[nodiscard]] constexpr bool IsControllerCommand(std::uint8_t number) {
    return !ControllerCommandName(number).empty();
}

// Whether the inner packet `inner`, sent to whatever child, asks for the controller to be opened
// anew: by its own command, or as a child of its name. `inner` may be of any size; bytes beyond its
// end count as zero.
[[nodiscard]] constexpr bool ReopensController(std::span<const std::uint8_t> inner) {
    const auto byteAt = [&](std::size_t index) -> std::uint8_t {
        return index < inner.size() ? inner[index] : std::uint8_t{0};
    };
    const auto command = static_cast<ControllerCommand>(byteAt(kCommandOffset));
    if (command == ControllerCommand::kReopenController) return true;
    if (command != ControllerCommand::kOpenChild) return false;
    if (byteAt(kCommandNameLengthOffset) != kControllerName.size() + 1) return false;
    for (std::size_t index = 0; index <= kControllerName.size(); ++index) {
        const char wanted = index < kControllerName.size() ? kControllerName[index] : '\0';
        if (byteAt(kCommandNameOffset + index) != static_cast<std::uint8_t>(wanted)) return false;
    }
    return true;
}

}  // namespace vexa
