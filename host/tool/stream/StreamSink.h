// Where the blocks of a stream go.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "SampleFormat.h"
#include "vexahost/Block.h"

/// A block and what it says.
struct StreamedBlock {
    std::size_t device;       // index among the stream's devices
    const std::string& name;  // of the device
    double seconds;           // from the start of the stream to the block's arrival
    const vexahost::Block& block;
    const std::optional<Reading>& reading;
};

/// Used by one thread.
class StreamSink {
  public:
    virtual ~StreamSink() = default;

    virtual void Take(const StreamedBlock& block) = 0;

    /// Called often, whether something has come or not.
    virtual void Update() {}

    /// True when the person in front of it wants the stream to end.
    [[nodiscard]] virtual bool WantsEnd() { return false; }
};

/// A line for each block: device, time (the device's own where it is known), samples or bytes.
std::unique_ptr<StreamSink> MakeTextSink();

/// A header line, then a row for each sample:
/// time_s,device,sequence,device_time_s,channel,index,value. A block without samples makes one row:
/// channel "bytes", index 0, its bytes in hex as the value.
std::unique_ptr<StreamSink> MakeCsvSink();

/// A JSON object for each block: time_s, device, sequence, then device_time_s where it is known and
/// channels (an array of samples under each channel's name), or bytes (hex); checksum_right, false,
/// for DAQ packets that are damaged.
std::unique_ptr<StreamSink> MakeJsonSink();
