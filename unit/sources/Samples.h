// Samples in blocks like those of a simulated byte-stream sensor.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "protocol/Packet.h"
#include "sources/Source.h"

namespace vexa::unit {

// How a sample is written. The wire has them in little-endian order.
enum class SampleFormat { kInt16, kInt32, kFloat32 };

[[nodiscard]] constexpr std::size_t SizeOf(SampleFormat format) {
    return format == SampleFormat::kInt16 ? 2 : 4;
}

// Collects samples of all channels and passes them on as blocks: the samples of one moment after
// each other, as many moments as fit or as are due. One thread at a time.
//
//   0      1        2         3          4 .. 7         8 ..
//  +------+--------+---------+----------+--------------+------------------------------------+
//  | 0xA0 | length | counter | checksum | milliseconds | channel 0, channel 1, ..., again   |
//  +------+--------+---------+----------+--------------+------------------------------------+
//
// The milliseconds are those of the last moment in the block.
class SampleBlocks {
  public:
    // With `rate` moments per second a block is passed at least kLeastBlocks times a second, or for
    // each moment if there are fewer. The moments of more than kMaxChannels do not fit.
    SampleBlocks(SourceLine& line_, SampleFormat format_, std::size_t channels, double rate)
        : line(line_), format(format_) {
        const std::size_t size = channels * SizeOf(format);
        const auto wanted = static_cast<std::size_t>(rate / kLeastBlocks);
        const std::size_t most = (kMaxSourceBlock - kHeader) / size;
        momentsInBlock = wanted < 1 ? 1 : wanted < most ? wanted : most;
        block.resize(kHeader);
    }

    static constexpr double kLeastBlocks = 20;
    static constexpr std::size_t kHeader = kPayloadOffset + 4;
    [[nodiscard]] static constexpr std::size_t MaxChannels(SampleFormat format) {
        return (kMaxSourceBlock - kHeader) / SizeOf(format);
    }

    void AddFloat(float value) {
        static_assert(sizeof value == sizeof(std::uint32_t));
        std::uint32_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        AddBytes(bits);
    }
    void AddCount(std::int64_t count) { AddBytes(static_cast<std::uint32_t>(count)); }

    // The moment is complete; it was `milliseconds` after the beginning.
    void EndMoment(std::uint32_t milliseconds) {
        last = milliseconds;
        if (++moments >= momentsInBlock) Flush();
    }

    // Passes on what there is.
    void Flush() {
        if (moments == 0) return;
        block[kTypeOffset] = kClassDaq;
        block[kLengthOffset] = static_cast<std::uint8_t>(block.size());
        block[kSequenceOffset] = counter++;
        StoreLe32(block, kPayloadOffset, last);
        SealPacket(block);
        line.Pass(block);
        block.resize(kHeader);
        moments = 0;
    }

  private:
    void AddBytes(std::uint32_t value) {
        for (std::size_t byte = 0; byte < SizeOf(format); ++byte) {
            block.push_back(static_cast<std::uint8_t>(value >> 8U * byte));
        }
    }

    SourceLine& line;
    const SampleFormat format;
    std::size_t momentsInBlock = 1;
    std::size_t moments = 0;
    std::uint32_t last = 0;
    std::uint8_t counter = 0;
    std::vector<std::uint8_t> block;
};

}  // namespace vexa::unit
