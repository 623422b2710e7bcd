// Reads captures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "capture/CapturedFrame.h"
#include "vexahost/Expected.h"

namespace vexahost {

/// The bytes of a file, e.g. a capture. kInvalidArgument when it cannot be read.
[[nodiscard]] Expected<std::vector<std::uint8_t>> ReadWholeFile(const std::string& path);

/// Takes the frames out of a capture in pcapng format: of either byte order and any time
/// resolution, with blocks and options skipped that it does not know. Used by one thread.
class PcapngReader {
  public:
    /// `capture` is the whole file, which must outlive the reader and the frames.
    explicit PcapngReader(std::span<const std::uint8_t> capture)
        : rest(capture), size(capture.size()) {}

    /// The next frame; nothing at the end of the capture or where it goes wrong.
    [[nodiscard]] std::optional<CapturedFrame> Next();

    /// What is wrong with the capture, and where in it; empty when it was read to its end.
    [[nodiscard]] const std::string& Fault() const { return fault; }

  private:
    struct Interface {
        std::uint16_t linkType;
        std::uint8_t timeResolution;  // a negative power of 10, or of 2 with kBinaryResolution
    };
    struct Block {
        std::uint32_t type = 0;
        std::span<const std::uint8_t> body;
    };

    [[nodiscard]] std::optional<Block> NextBlock();
    [[nodiscard]] bool ReadByteOrder();
    void TakeInterface(std::span<const std::uint8_t> body);
    [[nodiscard]] std::optional<CapturedFrame> TakePacket(std::span<const std::uint8_t> body);
    // Calls `visit(code, value)` for each option. False when they do not end properly.
    template <typename Visit>
    [[nodiscard]] bool EachOption(std::span<const std::uint8_t> options, Visit visit) const;

    [[nodiscard]] std::uint16_t Load16(const std::uint8_t* bytes) const;
    [[nodiscard]] std::uint32_t Load32(const std::uint8_t* bytes) const;
    void Fail(const std::string& what);

    std::span<const std::uint8_t> rest;
    std::size_t size;
    std::size_t blockStart = 0;  // of the block that was read last
    bool bigEndian = false;
    bool inSection = false;
    std::vector<Interface> interfaces;  // of the section
    std::string fault;
};

}  // namespace vexahost
