// Receives the blocks of a stream: prints or draws them.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tool/Output.h"
#include "tool/Samples.h"
#include "vexahost/Block.h"

namespace vexahost::tool {

// A block with its samples.
struct StreamedBlock {
    std::size_t device;            // index among the stream's devices
    const std::string& name;       // of the device
    const std::string& label;      // the name, with the child's id where two devices share a name
    std::optional<ChildId> child;  // nothing: the DAQ
    double seconds;                // from the start of the stream to the block's arrival
    const Block& block;
    const std::optional<Reading>& reading;
};

// One thread at a time.
class StreamSink {
  public:
    virtual ~StreamSink() = default;

    virtual void Add(const StreamedBlock& block) = 0;

    // Called at least every 20 ms or so, also when nothing has come.
    virtual void Update() {}

    // True once the user has asked for the end of the stream.
    [[nodiscard]] virtual bool WantsEnd() { return false; }
};

// A line for each block: device, time (the device's own where it is known), samples or bytes.
std::unique_ptr<StreamSink> MakeTextSink(PatientOutput& output);

// A header line, then a row for each sample:
// time_s,device,child,sequence,device_time_s,channel,index,value. A block without samples makes one
// row: channel "bytes", index 0, its bytes in hex as the value. The DAQ has no child id.
std::unique_ptr<StreamSink> MakeCsvSink(PatientOutput& output);

// A JSON object for each block: time_s, device, child, sequence, then device_time_s where it is
// known and channels (an array of samples under each channel's name), or bytes (hex);
// checksum_right, false, for DAQ packets that are damaged.
std::unique_ptr<StreamSink> MakeJsonSink(PatientOutput& output);

}  // namespace vexahost::tool
