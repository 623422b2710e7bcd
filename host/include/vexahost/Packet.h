// A packet by value.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "vexahost/protocol/Packet.h"

namespace vexahost {

// Address of a child, chosen by the host. No child should have the controller's.
using ChildId = std::uint32_t;

// The bytes of one packet; never allocates.
class Packet {
  public:
    // A packet of that type and sequence number whose payload is zero; `size` is 4 to 255 bytes.
    Packet(std::uint8_t type, std::size_t size, std::uint8_t sequence) : count(size) {
        bytes[vexa::kTypeOffset] = type;
        bytes[vexa::kLengthOffset] = static_cast<std::uint8_t>(size);
        bytes[vexa::kSequenceOffset] = sequence;
    }

    [[nodiscard]] std::span<const std::uint8_t> Bytes() const {
        return std::span(bytes).first(count);
    }
    [[nodiscard]] std::span<std::uint8_t> Bytes() { return std::span(bytes).first(count); }

    // Writes the checksum. The builders in Requests.h have done it.
    void Seal() { vexa::SealPacket(bytes); }

  private:
    std::array<std::uint8_t, vexa::kPacketBufferSize> bytes{};
    std::size_t count;
};

}  // namespace vexahost
