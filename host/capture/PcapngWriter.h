// Writes captures.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "capture/CapturedFrame.h"
#include "vexahost/Expected.h"

namespace vexahost {

/// Used by one thread at a time.
class PcapngWriter {
  public:
    /// Makes the file, or empties one that exists. kInvalidArgument when that cannot be done.
    static Expected<PcapngWriter> Create(const std::string& path);

    /// Appends a frame and hands it to the system, so that it stays also when the program is
    /// killed. kInvalidArgument when the system takes no more, e.g. on a full disk.
    Expected<Done> Add(const CapturedFrame& frame);

  private:
    struct Closer {
        void operator()(std::FILE* open) const { std::fclose(open); }
    };

    PcapngWriter(std::string path, std::FILE* file);

    Expected<Done> Write();
    void Append16(std::uint64_t value);
    void Append32(std::uint64_t value);
    void AppendPadded(std::span<const std::uint8_t> bytes);
    void AppendOption(std::uint16_t code, std::span<const std::uint8_t> value);
    // Begins a block with its length left open, and fills that in.
    void BeginBlock(std::uint32_t type);
    void EndBlock();

    std::string path;
    std::unique_ptr<std::FILE, Closer> file;
    std::vector<std::uint8_t> pending;  // blocks to be written next
    std::size_t blockStart = 0;
};

}  // namespace vexahost
