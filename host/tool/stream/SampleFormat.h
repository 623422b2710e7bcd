// Where the samples of a channel stand in the blocks of a device, and what stands there.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "vexahost/Expected.h"

enum class SampleType { kUnsigned, kSigned, kFloat };

/// "[NAME:][CHANNEL=]TYPE@OFFSET[xCOUNT]", e.g. "Microphone:left=i16le@8x4".
struct SampleFormat {
    std::string device;   // the device that it is for; empty: all
    std::string channel;  // its own name, else TYPE@OFFSET
    SampleType type;
    std::size_t size;  // bytes of one sample: 1, 2, 4, or 8 for a float
    bool bigEndian;
    std::size_t offset;  // of the first sample, in bytes
    std::size_t count;   // samples, one behind the other
};

/// kInvalidArgument, with the text and what is wrong with it, for anything else.
vexahost::Expected<SampleFormat> ParseSampleFormat(const std::string& text);

/// The samples of one channel in a block.
struct Channel {
    std::string name;
    std::vector<double> values;
};

/// What a block says.
struct Reading {
    std::optional<double> deviceSeconds;  // the device's own time
    std::vector<Channel> channels;
};

/// The samples of a channel, as many of them as lie within the block.
std::vector<double> DecodeChannel(const SampleFormat& format, std::span<const std::uint8_t> block);

/// What a block of `device` says by those of `formats` that are for it; by the virtual unit's own
/// format when none is. Nothing when there is not one sample in it.
std::optional<Reading> ReadBlock(std::span<const SampleFormat> formats, std::string_view device,
                                 std::span<const std::uint8_t> block);

/// The shortest text that gives `value` back.
std::string ValueText(double value);
