// The samples of a device, with their times.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "vexahost/SampleClock.h"
#include "vexahost/SampleFormat.h"

namespace vexahost {

// The samples in one block of a device.
struct SampleBlock {
    // A row for each channel of the format, all of the same length, which is at least 1.
    std::vector<std::vector<double>> values;
    SampleTimes times{};
    std::optional<double> deviceSeconds;  // the device's own time of the block

    [[nodiscard]] std::size_t Count() const { return values.front().size(); }  // of each channel
    [[nodiscard]] double TimeOf(std::size_t sample) const {
        return times.first + times.step * static_cast<double>(sample);
    }
};

// Turns the blocks of one device into samples. Times are in seconds from a moment that the caller
// chooses, for all devices the same. One thread at a time.
class SampleReader {
  public:
    // `formats` must not change any more. The device was opened at `opened`.
    SampleReader(std::string device, std::shared_ptr<const DeviceFormats> formats, double opened);

    // The samples of a block with this sequence number, which arrived at `arrival`. Null for a
    // block that holds none; it has to be given all the same, for its number. A damaged one is a
    // gap. Valid until the next call.
    const SampleBlock* Read(std::span<const std::uint8_t> bytes, std::uint8_t sequence,
                            double arrival, bool checksumRight = true);

    // The device was opened anew.
    void Reopen(double opened);

    // What the device's blocks are read by: its own format at once, a guessed one from its first
    // block with samples on; null before.
    [[nodiscard]] const DeviceFormat* Format() const { return format; }

    // Samples per second of each channel; nothing before it is known.
    [[nodiscard]] std::optional<double> Rate() const;

  private:
    void Use(const DeviceFormat* found);

    const std::string device;
    const std::shared_ptr<const DeviceFormats> formats;
    double opened;
    const DeviceFormat* format = nullptr;
    std::optional<SampleClock> clock;
    SampleBlock block;
};

}  // namespace vexahost
