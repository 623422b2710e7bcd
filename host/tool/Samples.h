// Samples in the blocks of devices: the format of the virtual unit, and formats that a person
// gives.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "vexahost/Expected.h"

namespace vexahost::tool {

// The samples in one block of a device of the virtual unit.
struct Samples {
    std::uint32_t milliseconds;  // since the device's stream was opened
    std::vector<std::int16_t> values;
};

// Decodes a measurement packet (type 0xA0; time in bytes 4 to 7, 16-bit samples from byte 8) or a
// report of 8 bytes (sample in bytes 2 and 3, time in bytes 4 to 7). Nothing for any other block,
// or one without a sample.
std::optional<Samples> DecodeSamples(std::span<const std::uint8_t> block);

// "1.250 s: 12 -40 77", or the block's bytes when it holds no samples.
std::string DescribeBlock(std::span<const std::uint8_t> block);

// The request that arms a HID sensor: the service drops the sensor's reports until the sensor has
// answered it once.
std::vector<std::uint8_t> HidInitRequest();

// True for a HID sensor's answer to that request.
bool IsHidInitResponse(std::span<const std::uint8_t> block);

// Where the samples of a channel stand in the blocks of a device, and of what type they are:
// "[NAME:][CHANNEL=]TYPE@OFFSET[xCOUNT]", for example "Microphone:left=i16le@8x4".
enum class SampleType { kUnsigned, kSigned, kFloat };

struct SampleFormat {
    std::string device;   // the device that it is for; empty: all
    std::string channel;  // its own name, else TYPE@OFFSET
    SampleType type;
    std::size_t size;  // bytes of one sample: 1, 2, 4, or 8 for a float
    bool bigEndian;
    std::size_t offset;  // of the first sample, in bytes
    std::size_t count;   // consecutive samples
};

// kInvalidArgument, with the text and what is wrong with it, when `text` is no format.
Expected<SampleFormat> ParseSampleFormat(const std::string& text);

// The samples of one channel in a block.
struct Channel {
    std::string name;
    std::vector<double> values;
};

// The samples of all channels in a block.
struct Reading {
    std::optional<double> deviceSeconds;  // the device's own time
    std::vector<Channel> channels;
};

// The samples of a channel, as many of them as lie within the block.
std::vector<double> DecodeChannel(const SampleFormat& format, std::span<const std::uint8_t> block);

// Reads a block of `device` by those of `formats` that are for it, or by the virtual unit's own
// format when none is. Nothing when the block holds no sample.
std::optional<Reading> ReadBlock(std::span<const SampleFormat> formats, std::string_view device,
                                 std::span<const std::uint8_t> block);

// The shortest text that reads back as `value`.
std::string ValueText(double value);

}  // namespace vexahost::tool
