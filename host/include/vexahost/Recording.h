// Recordings of the link, in pcapng format: written, read, and cut into frames for them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "vexahost/Describe.h"
#include "vexahost/Expected.h"
#include "vexahost/FrameReader.h"
#include "vexahost/Recording.h"
#include "vexahost/Transport.h"

namespace vexahost {

// When a frame was recorded: time since 1970-01-01 00:00 UTC.
using CaptureTime = std::chrono::nanoseconds;

// One record: a frame that a unit sent (with its 8-byte header), the bytes that a host sent in one
// write (without a header), or, with no bytes, an event that the comment names.
struct CapturedFrame {
    CaptureTime time{};
    Direction direction = Direction::kToUnit;
    std::span<const std::uint8_t> bytes;  // borrowed
    std::string comment;                  // empty: none
    std::uint32_t unit = 0;               // of a capture of a USB bus: which device
};

// Comments of events: a host has connected, and has disconnected.
inline constexpr char kCableIn[] = "cable in";
inline constexpr char kCableOut[] = "cable out";

class BusCapture;

// Reads the frames of a recording, or of a capture of a USB bus (usbmon, USBPcap): pcapng or pcap,
// in either byte order and with any time resolution. Skips unknown blocks and options, and what
// passes on the bus between others. One thread at a time.
class PcapngReader {
  public:
    // `capture` is the whole file. It must outlive the reader and the frames.
    explicit PcapngReader(std::span<const std::uint8_t> capture);

    // Reads a file as far as the frames are wanted, so that a recording can be read while it is
    // written into a pipe; "-" is standard input. kInvalidArgument when it cannot be opened.
    static Expected<PcapngReader> Open(const std::string& path);

    // The next frame, valid until the next call; nothing at the end of the recording, or at a fault
    // in it.
    [[nodiscard]] std::optional<CapturedFrame> Next();

    // What is wrong with the recording, and at which byte; empty when there is no fault.
    [[nodiscard]] const std::string& Fault() const { return fault; }

    struct Closer {
        void operator()(std::FILE* open) const { std::fclose(open); }
    };

  private:
    struct Interface {
        std::uint16_t linkType;
        std::uint8_t timeResolution;  // a negative power of 10, or of 2 with kBinaryResolution
    };
    struct Block {
        std::uint32_t type = 0;
        std::span<const std::uint8_t> body;
    };

    PcapngReader();

    // Makes sure that `count` bytes are there, reading on if need be. False at the end.
    [[nodiscard]] bool Need(std::size_t count);
    [[nodiscard]] std::optional<Block> NextBlock();
    [[nodiscard]] bool ReadByteOrder();
    void ReadInterface(std::span<const std::uint8_t> body);
    // False when the file has ended, or has a fault.
    [[nodiscard]] bool ReadRecord();
    void ReadPacket(std::span<const std::uint8_t> body);
    [[nodiscard]] bool ReadPcapHeader();
    [[nodiscard]] bool ReadPcapRecord();
    void Take(std::uint16_t linkType, CapturedFrame frame);
    // Calls `visit(code, value)` for each option. False when they do not end properly.
    template <typename Visit>
    [[nodiscard]] bool EachOption(std::span<const std::uint8_t> options, Visit visit) const;

    [[nodiscard]] std::uint16_t Load16(const std::uint8_t* bytes) const;
    [[nodiscard]] std::uint32_t Load32(const std::uint8_t* bytes) const;
    void Fail(const std::string& what);

    std::unique_ptr<std::FILE, Closer> file;  // null: all is in `rest`
    std::vector<std::uint8_t> buffer;         // of the file: what `rest` points into
    std::span<const std::uint8_t> rest;
    std::uint64_t blockStart = 0;  // of the block read last
    std::uint64_t nextBlock = 0;
    bool bigEndian = false;
    bool inSection = false;
    std::optional<Interface> pcap;     // of a file in the older format
    std::optional<CapturedFrame> own;  // the newest record, if it is one of ours
    std::shared_ptr<BusCapture> bus;
    std::vector<Interface> interfaces;  // of the section
    std::string fault;
};

// Writes a recording. One thread at a time.
class PcapngWriter {
  public:
    // Creates the file, or opens an existing one, whose contents the first frame replaces. "-" is
    // standard output. kInvalidArgument when that fails.
    static Expected<PcapngWriter> Create(const std::string& path);

    // Appends a frame and passes it to the system, so that it survives the end of the program.
    // kInvalidArgument when the write fails, for example because the disk is full.
    Expected<Done> Add(const CapturedFrame& frame);

  private:
    PcapngWriter(std::string path, std::FILE* file);

    Expected<Done> Write();
    void Append16(std::uint64_t value);
    void Append32(std::uint64_t value);
    void AppendPadded(std::span<const std::uint8_t> bytes);
    void AppendOption(std::uint16_t code, std::span<const std::uint8_t> value);
    // Begin a block, and fill in its length.
    void BeginBlock(std::uint32_t type);
    void EndBlock();

    std::string path;
    std::unique_ptr<std::FILE, PcapngReader::Closer> file;
    std::vector<std::uint8_t> pending;  // blocks not yet written
    bool replaces = false;              // the file still has its former contents
    std::size_t blockStart = 0;
};

// Cuts the byte stream of a unit into frames, for recording. One thread at a time.
class FrameCutter {
  public:
    // Called with each frame, its 8-byte header included.
    using Sink = std::function<void(std::span<const std::uint8_t>)>;

    // For a link without frame headers each piece becomes a frame of its own.
    FrameCutter(Framing framing_, Sink sink_) : framing(framing_), sink(std::move(sink_)) {}

    // The next piece of the unit's byte stream. After a bad frame header the pieces go to the sink
    // as they come.
    void Add(std::span<const std::uint8_t> piece);

    // The link has ended: the sink gets the unfinished frame, if there is one.
    void Finish();

  private:
    void WrapPiece(std::span<const std::uint8_t> piece);

    const Framing framing;
    const Sink sink;
    std::vector<std::uint8_t> frame;  // unfinished
    bool violated = false;
};

}  // namespace vexahost
