// Holds each byte that the unit's devices send against what they must have sent.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <span>
#include <vector>

#include "model/Devices.h"
#include "vexahost/Packet.h"

namespace vexa::soak {

// What came of one child, or of all.
struct LoadCounts {
    std::uint64_t blocks = 0;  // of samples
    std::uint64_t echoes = 0;
    std::uint64_t replies = 0;     // of the controller
    std::uint64_t bytes = 0;       // of whole tunnel packets
    std::uint64_t gaps = 0;        // tunnel sequence numbers that were not the next one
    std::uint64_t missing = 0;     // blocks and echoes that were passed over
    std::uint64_t duplicates = 0;  // echoes that came again
    std::uint64_t wrong = 0;       // packets with any other content than they must have

    void Add(const LoadCounts& other);
    [[nodiscard]] std::uint64_t Faults() const { return gaps + missing + duplicates + wrong; }
};

// The bytes of a child's echo number `number`, from 0: of all sizes, unlike any block of samples.
[[nodiscard]] std::vector<std::uint8_t> EchoOf(vexahost::ChildId child, std::uint32_t number);

// Safe from any thread.
class LoadChecker {
  public:
    explicit LoadChecker(vexahost::ChildId controller);

    // A child whose device sends blocks of `blockSize` bytes of that waveform, each built from the
    // first one on.
    void AddChild(vexahost::ChildId child, std::size_t blockSize, vexa::unit::Waveform waveform);

    // A packet from the unit, right or wrong.
    void Take(std::span<const std::uint8_t> packet);

    [[nodiscard]] LoadCounts CountsOf(vexahost::ChildId child) const;
    [[nodiscard]] LoadCounts Total() const;

    // The longest time in which nothing came. Above about 120 ms the unit's output buffer of 50,000
    // bytes overflows at full load, as it is made to: the machine, not the service, was too slow.
    [[nodiscard]] std::chrono::milliseconds LongestPause() const;

  private:
    struct Child {
        std::size_t blockSize = 0;
        vexa::unit::WaveSource wave;
        std::uint8_t sequence = 0;  // that is next, as all below
        std::uint8_t block = 0;
        std::uint32_t milliseconds = 0;  // of the block before
        std::uint32_t echo = 0;
        LoadCounts counts = {};
    };

    void TakeBlock(Child& child, std::span<const std::uint8_t> block) const;
    void TakeEcho(Child& child, vexahost::ChildId id, std::span<const std::uint8_t> echo) const;

    const vexahost::ChildId controller;
    mutable std::mutex mutex;  // guards all below
    std::map<vexahost::ChildId, Child> children;
    std::chrono::steady_clock::time_point lastCame;
    std::chrono::steady_clock::duration longestPause{0};
    std::uint64_t strays = 0;  // packets that are nobody's, or whose checksum is wrong
};

}  // namespace vexa::soak
