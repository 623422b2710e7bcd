// Explains a capture: its frames become packets in words.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>

#include "capture/CapturedFrame.h"
#include "capture/RequestReader.h"
#include "vexahost/Packet.h"
#include "vexahost/PacketReader.h"
#include "vexahost/protocol/Commands.h"
#include "vexahost/protocol/InitialSync.h"

namespace vexahost {

/// What a packet is in the conversation.
enum class PacketKind {
    kInitialSync,
    kMultiplexerCommand,  // class 0x40, to the service or the DAQ
    kControllerCommand,
    kChildData,         // a tunnel packet of a child, in either direction
    kInitialSyncReply,  // of the service or of the DAQ
    kMultiplexerReply,  // of the service or of the DAQ
    kControllerReply,
    kDaqPacket,
    kOther,   // of a type that nobody uses in that direction
    kBroken,  // bytes that are no packet, or a frame that is none
    kEvent,   // no bytes; the text says what happened
};

/// "initial-sync", "controller-reply", ...: as programs read it.
[[nodiscard]] const char* KindName(PacketKind kind);

/// One packet, or one thing to say about the capture.
struct DecodedPacket {
    CaptureTime time;  // of the frame with its last byte
    Direction direction;
    PacketKind kind;
    bool checksumRight;
    std::optional<ChildId> child;         // whose tunnel it is
    std::span<const std::uint8_t> bytes;  // valid during the call
    std::string text;                     // in words, one line
};

/// Follows one conversation: it remembers which ids the host gave to the controller and to which
/// devices. Used by one thread.
class CaptureDecoder {
  public:
    using Sink = std::function<void(const DecodedPacket&)>;

    explicit CaptureDecoder(Sink sink_) : sink(std::move(sink_)) { fromUnit.AwaitSyncReply(); }

    /// Hands the packets that `frame` completes to the sink.
    void Take(const CapturedFrame& frame);

    /// The end of the capture, or of a connection: says what the host sent of a packet that it
    /// never completed. `time` is that of the last frame.
    void Finish(CaptureTime time);

  private:
    void TakeEvent(const CapturedFrame& frame);
    void TakeRequests(const CapturedFrame& frame);
    void TakeFrameOfUnit(const CapturedFrame& frame);
    // Remembers what a good request asks for.
    void Follow(std::span<const std::uint8_t> request);
    void SayBroken(CaptureTime time, Direction direction, std::span<const std::uint8_t> bytes,
                   const std::string& text);
    [[nodiscard]] PacketKind KindOfRequest(std::span<const std::uint8_t> packet) const;
    [[nodiscard]] PacketKind KindFromUnit(std::span<const std::uint8_t> packet) const;
    [[nodiscard]] std::string ChildText(Direction direction, ChildId child,
                                        std::size_t bytes) const;
    void Say(CaptureTime time, Direction direction, PacketKind kind, const PacketView& packet);

    const Sink sink;
    RequestReader toUnit;
    PacketReader fromUnit;
    bool violationSaid = false;
    std::optional<ChildId> controller;
    std::map<ChildId, std::string> names;  // of the devices that the host asked for
};

}  // namespace vexahost
