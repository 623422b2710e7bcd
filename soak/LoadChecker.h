// Compares every byte from the unit with what its devices must have sent.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "foundation/Mutex.h"
#include "model/Devices.h"
#include "vexahost/Packet.h"

namespace vexa::soak {

// Statistics of one child, or of all.
struct LoadCounts {
    std::uint64_t blocks = 0;  // blocks of samples
    std::uint64_t echoes = 0;
    std::uint64_t replies = 0;     // of the controller
    std::uint64_t bytes = 0;       // of whole tunnel packets
    std::uint64_t gaps = 0;        // tunnel sequence numbers that were skipped or repeated
    std::uint64_t missing = 0;     // blocks and echoes that did not arrive
    std::uint64_t duplicates = 0;  // echoes that arrived again
    std::uint64_t wrong = 0;       // packets with wrong content

    void Add(const LoadCounts& other);
    [[nodiscard]] std::uint64_t Faults() const { return gaps + missing + duplicates + wrong; }
};

// The bytes of a child's echo `number`, from 0: of varying size, and unlike any block of samples.
[[nodiscard]] std::vector<std::uint8_t> EchoOf(vexahost::ChildId child, std::uint32_t number);

// Any thread.
class LoadChecker {
  public:
    explicit LoadChecker(vexahost::ChildId controller);

    // Adds a child whose device sends blocks of `blockSize` bytes of what `wave` produces, starting
    // with the first block.
    void AddChild(vexahost::ChildId child, std::size_t blockSize,
                  const vexa::unit::WaveSource& wave);

    // Checks a packet from the unit.
    void Check(std::span<const std::uint8_t> packet);

    [[nodiscard]] LoadCounts CountsOf(vexahost::ChildId child) const;
    [[nodiscard]] LoadCounts Total() const;

    // The longest time without a packet. Above about 120 ms the unit's output buffer of 50,000
    // bytes overflows at full load, as designed: the machine was too slow, not the service.
    [[nodiscard]] std::chrono::milliseconds LongestPause() const;

  private:
    struct Child {
        std::size_t blockSize = 0;
        vexa::unit::WaveSource wave;
        std::uint8_t sequence = 0;  // the next one expected, like those below
        std::uint8_t block = 0;
        std::uint32_t milliseconds = 0;  // of the previous block
        std::uint32_t echo = 0;
        LoadCounts counts = {};
    };

    void CheckBlock(Child& child, std::span<const std::uint8_t> block) const;
    void CheckEcho(Child& child, vexahost::ChildId id, std::span<const std::uint8_t> echo) const;

    const vexahost::ChildId controller;
    mutable Mutex mutex;
    std::map<vexahost::ChildId, Child> children VEXA_GUARDED_BY(mutex);
    std::chrono::steady_clock::time_point lastPacket VEXA_GUARDED_BY(mutex);
    std::chrono::steady_clock::duration longestPause VEXA_GUARDED_BY(mutex){0};
    std::uint64_t strays VEXA_GUARDED_BY(mutex) = 0;  // of no child, or with a wrong checksum
};

}  // namespace vexa::soak
