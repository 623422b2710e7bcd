// Explains a recording: its frames become packets in words.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>

#include "vexahost/Packet.h"
#include "vexahost/PacketReader.h"
#include "vexahost/Recording.h"
#include "vexahost/protocol/Commands.h"
#include "vexahost/protocol/InitialSync.h"

namespace vexahost {

// The role of a packet in the conversation.
enum class PacketKind {
    kInitialSync,
    kMultiplexerCommand,  // class 0x40, to the service or the DAQ
    kControllerCommand,
    kChildData,         // a tunnel packet of a child, in either direction
    kInitialSyncReply,  // of the service or of the DAQ
    kMultiplexerReply,  // of the service or of the DAQ
    kControllerReply,
    kDaqPacket,
    kOther,   // of a type that is not used in that direction
    kBroken,  // bytes that are no packet, or no frame
    kEvent,   // no bytes; described by the text
};

// "initial-sync", "controller-reply" and so on, for programs.
[[nodiscard]] const char* KindName(PacketKind kind);

// One packet, or one remark about the recording.
struct DecodedPacket {
    CaptureTime time;  // of the frame that holds its last byte
    Direction direction;
    PacketKind kind;
    bool checksumRight;
    std::optional<ChildId> child;         // of a tunnel packet
    std::span<const std::uint8_t> bytes;  // valid during the call
    std::string text;                     // in words, one line
};

// A device that the host has asked the unit to open.
struct AskedDevice {
    std::string name;
    CaptureTime asked{};       // when
    std::uint32_t number = 0;  // counts these requests, over all devices and connections
};

// Follows one conversation: remembers the ids that the host gave to the controller and to devices.
// One thread at a time.
class CaptureDecoder {
  public:
    using Sink = std::function<void(const DecodedPacket&)>;

    // Without `inWords` packets have no text, which takes most of the time.
    explicit CaptureDecoder(Sink sink_, bool inWords_ = true)
        : sink(std::move(sink_)), inWords(inWords_) {
        fromUnit.AwaitSyncReply();
    }

    // Passes the packets that `frame` completes to the sink.
    void Add(const CapturedFrame& frame);

    // The end of the recording or of a connection: passes an unfinished packet of the host to the
    // sink. `time` is that of the last frame.
    void Finish(CaptureTime time);

    // The device behind an id; null when nobody has asked for it. Valid until the next call.
    [[nodiscard]] const AskedDevice* DeviceOf(ChildId child) const;

  private:
    void AddEvent(const CapturedFrame& frame);
    void AddRequests(const CapturedFrame& frame);
    void AddFrameOfUnit(const CapturedFrame& frame);
    // Remembers the ids that a request assigns.
    void Follow(CaptureTime time, std::span<const std::uint8_t> request);
    void ReportBroken(CaptureTime time, Direction direction, std::span<const std::uint8_t> bytes,
                      const std::string& text);
    [[nodiscard]] PacketKind KindOfRequest(std::span<const std::uint8_t> packet) const;
    [[nodiscard]] PacketKind KindFromUnit(std::span<const std::uint8_t> packet) const;
    [[nodiscard]] std::string ChildText(Direction direction, ChildId child,
                                        std::size_t bytes) const;
    void Report(CaptureTime time, Direction direction, PacketKind kind, const PacketView& packet);

    const Sink sink;
    const bool inWords;
    RequestReader toUnit;
    PacketReader fromUnit;
    bool violationReported = false;
    std::optional<ChildId> controller;
    struct Asked {
        AskedDevice device;
        bool isClosed = false;  // the host has asked for that; another may take the id
    };
    std::map<ChildId, Asked> devices;
    std::uint32_t asked = 0;
};

}  // namespace vexahost
