// The blocks of devices in a recording or in a capture of a USB bus.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "vexahost/Block.h"
#include "vexahost/Decoder.h"
#include "vexahost/Recording.h"

namespace vexahost {

struct RecordedDevice {
    std::string name;              // "DAQ"; "child 0x11" when nobody was seen to open it
    std::string label;             // the name; with the id if there is an earlier one of that name
    std::optional<ChildId> child;  // nothing: the DAQ
    ChildStatistics statistics;
};

struct RecordedBlock {
    std::size_t device;                   // its index
    double seconds;                       // from the first frame of the recording
    std::optional<double> opened;         // the first block since the device was opened: then
    std::span<const std::uint8_t> bytes;  // valid during the call
    std::uint8_t sequence;
    bool checksumRight;
};

// Needs memory for the devices, not for their blocks. One thread at a time.
class RecordedBlocks {
  public:
    using Sink = std::function<void(const RecordedBlock&)>;

    explicit RecordedBlocks(Sink sink_) : sink(std::move(sink_)) {}

    // Passes the blocks that `frame` completes to the sink.
    void Add(const CapturedFrame& frame);

    // The devices of which a block has come so far; an index stays that of its device.
    [[nodiscard]] const std::vector<RecordedDevice>& Devices() const { return devices; }

    // When the first frame was recorded: zero of all times.
    [[nodiscard]] CaptureTime Start() const { return start.value_or(CaptureTime{}); }

  private:
    struct Place {
        std::size_t device;
        std::uint32_t opening = 0;  // the number of the request that opened it
        std::optional<std::uint8_t> sequence;
    };
    using Key = std::pair<std::uint32_t, std::optional<ChildId>>;  // unit and child

    void AddPacket(std::uint32_t unit, const DecodedPacket& packet);
    std::size_t DeviceFor(std::uint32_t unit, const std::string& name,
                          std::optional<ChildId> child);
    [[nodiscard]] double SecondsOf(CaptureTime time) const;

    const Sink sink;
    std::map<std::uint32_t, std::unique_ptr<CaptureDecoder>> decoders;  // by unit
    std::map<Key, Place> places;
    std::vector<RecordedDevice> devices;
    std::vector<std::uint32_t> unitOf;  // of each device
    std::optional<CaptureTime> start;
};

}  // namespace vexahost
