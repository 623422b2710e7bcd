// Finds what hosts and units say to each other in a capture of a USB bus.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "vexahost/Recording.h"

namespace vexahost {

// What a record of such a capture begins with.
enum class BusHeader {
    kUsbmonShort = 189,  // Linux, 48 bytes
    kUsbmonLong = 220,   // Linux, 64 bytes
    kUsbPcap = 249,      // Windows
};

// The record's transfer, as far as it matters here.
struct BusTransfer {
    std::uint32_t device;  // bus and address
    bool isBulk;           // else a control request
    bool toUnit;
    std::span<const std::uint8_t> bytes;  // of a control request: its 8 bytes
};

// Nothing for a record that carries nothing: what the host sends stands in the submission, what the
// unit sends in the completion.
[[nodiscard]] std::optional<BusTransfer> ReadBusTransfer(BusHeader header, bool bigEndian,
                                                         std::span<const std::uint8_t> record);

// Turns transfers into frames, as they are in recordings. A device is known as a unit by the first
// initial sync that it gets or the first frame header that it sends. One thread at a time.
class BusCapture {
  public:
    void Add(CaptureTime time, const BusTransfer& transfer);

    // The next frame; its bytes are valid until the next call.
    [[nodiscard]] std::optional<CapturedFrame> Next();

  private:
    struct Frame {
        CaptureTime time;
        Direction direction;
        std::vector<std::uint8_t> bytes;
        std::string comment;
        std::uint32_t unit;
    };
    struct Unit {
        std::optional<FrameCutter> frames;
        bool isBroken = false;  // the newest frame was none
    };

    void AddFromUnit(Unit& unit, const BusTransfer& transfer);
    void BeginFrames(Unit& unit, std::uint32_t device);

    std::map<std::uint32_t, std::unique_ptr<Unit>> units;
    CaptureTime now{};
    std::deque<Frame> frames;
    Frame current;
};

}  // namespace vexahost
