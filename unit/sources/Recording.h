// Reads recordings of the link (pcapng) as far as a device's blocks need it.
#pragma once

#include <chrono>
#include <cstdint>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vexa::unit {

// One thread at a time.
class RecordedBlocks {
  public:
    struct Block {
        std::chrono::nanoseconds time;
        std::vector<std::uint8_t> bytes;
    };

    // The blocks of the child that was opened as `child` in the recording at `path`. Throws
    // SourceError when it is none.
    RecordedBlocks(const std::string& path, std::string child);

    // The next block; nothing at the end. Throws SourceError at a fault.
    [[nodiscard]] std::optional<Block> Next();

    // The names of the devices that were opened so far.
    [[nodiscard]] std::string Names() const;

  private:
    [[nodiscard]] bool ReadRecord();
    void AddFrame(std::chrono::nanoseconds time, std::vector<std::uint8_t> bytes, bool toUnit);
    // Cuts whole packets off the front of `stream`.
    template <typename Visit>
    static void EachPacket(std::vector<std::uint8_t>& stream, Visit visit);

    const std::string path;
    const std::string child;
    std::ifstream file;
    double tick = 1e3;                 // of a time stamp, in ns
    std::vector<std::uint8_t> toUnit;  // unfinished packets
    std::vector<std::uint8_t> fromUnit;
    std::map<std::uint32_t, std::string> names;  // that child ids were last opened with
    std::vector<Block> blocks;                   // read, and not yet taken; the next one is last
};

}  // namespace vexa::unit
