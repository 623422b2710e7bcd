// Where samples stand in the blocks of devices.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vexahost/Expected.h"

namespace vexahost {

// How a number is written: "u8 i8", or "u16 i16 u32 i32 f32 f64" with "le" or "be" at the end. "s"
// is the same as "i".
struct SampleType {
    enum class Kind { kUnsigned, kSigned, kFloat };

    Kind kind = Kind::kUnsigned;
    std::size_t size = 1;  // bytes: 1, 2, 4, or 8 for a float
    bool bigEndian = false;

    static std::optional<SampleType> Parse(std::string_view text);

    // The number in the first `size` bytes. That of a 32-bit float is the one that a person would
    // write for it: 0.1, not 0.10000000149.
    [[nodiscard]] double Load(const std::uint8_t* bytes) const;

    bool operator==(const SampleType&) const = default;
};

// The samples of one channel in a block.
struct ChannelFormat {
    std::string name;
    SampleType type;
    std::size_t offset = 0;  // of the first sample, in bytes
    std::size_t stride = 0;  // bytes from one sample to the next; 0: the size of one
    std::size_t count = 0;   // samples in a block; 0: as many as fit
    double scale = 1;        // value = number * scale + bias
    double bias = 0;
    std::string unit;

    // Appends the samples that lie within `block` to `values`.
    void Decode(std::span<const std::uint8_t> block, std::vector<double>& values) const;

    // True when the values are the numbers as they stand.
    [[nodiscard]] bool IsPlain() const { return scale == 1 && bias == 0; }

    bool operator==(const ChannelFormat&) const = default;
};

// Where a block carries the device's own time.
struct TimeFormat {
    SampleType type;
    std::size_t offset = 0;
    double tick = 0.001;  // seconds that a count of 1 stands for

    // Seconds after which the count begins again at 0; 0: never.
    [[nodiscard]] double Wrap() const;

    bool operator==(const TimeFormat&) const = default;
};

// Which blocks hold samples.
enum class BlockCheck {
    kNone,    // all
    kPacket,  // a packet of type A0 with its own length and checksum
    kReport,  // 8 bytes, the top two bits of the first are 0
};

struct DeviceFormat {
    std::vector<ChannelFormat> channels;
    std::optional<double> rate;  // samples per second of a channel, where it is known
    BlockCheck check = BlockCheck::kNone;
    std::optional<TimeFormat> time;

    [[nodiscard]] bool HasSamples(std::span<const std::uint8_t> block) const;

    // The device's own time in a block, seconds since a moment of its own choice.
    [[nodiscard]] std::optional<double> TimeOf(std::span<const std::uint8_t> block) const;

    bool operator==(const DeviceFormat&) const = default;
};

// The formats of several devices, by their names ("DAQ" is the acquisition board). One thread at a
// time while it changes.
class DeviceFormats {
  public:
    using Entry = std::pair<std::string, DeviceFormat>;

    // The devices of the virtual unit. The same as the file devices.json.
    static DeviceFormats BuiltIn();

    // A device that is there already gets the new format.
    void Set(const std::string& device, DeviceFormat format);

    // Adds those devices of `others` that are not there yet.
    void AddMissing(const DeviceFormats& others);

    // The format of the device; for a device without one, the first format with a check that
    // `block` passes. Null when there is none. Valid until the formats change.
    [[nodiscard]] const DeviceFormat* Find(std::string_view device,
                                           std::span<const std::uint8_t> block = {}) const;

    [[nodiscard]] const std::vector<Entry>& Entries() const { return entries; }

  private:
    std::vector<Entry> entries;
};

// A channel in the short form "[NAME:][CHANNEL=]TYPE@OFFSET[xCOUNT]", for example
// "Microphone:left=i16le@8x4", and the device that it is for (empty: all). Without CHANNEL the
// channel is called TYPE@OFFSET; without COUNT there is one sample in a block. kInvalidArgument,
// with the text and what is wrong with it, when `text` is none.
Expected<std::pair<std::string, ChannelFormat>> ParseChannelFormat(const std::string& text);

}  // namespace vexahost
