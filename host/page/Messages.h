// What server and viewers say to each other (docs/page.md, "The page's messages"). Any thread; one
// at a time for a SamplesMessage.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "page/LiveUnit.h"
#include "page/PacketLog.h"
#include "page/Timeline.h"

namespace vexahost::page {

// A request of a viewer.
struct ViewerRequest {
    enum class Kind {
        kHello,   // the token
        kOrder,   // for the unit
        kFilter,  // which packets it wants to see as they come
        kLog,     // older lines
        kUnit,    // for the control socket of a virtual unit
    };

    Kind kind = Kind::kHello;
    std::uint64_t id = 0;  // comes back with the answer
    std::string token{};
    std::optional<Order> order{};
    LogFilter filter{};
    bool follows = true;                    // kFilter: new lines are wanted
    std::optional<std::uint64_t> before{};  // kLog: the number of a line; nothing: the end
    std::optional<double> at{};             // kLog: a time, in seconds since the start
    std::string unitRequest{};              // kUnit: one line of JSON
};

// Nothing, and why, when `text` is no request.
Expected<ViewerRequest> ParseRequest(std::string_view text);

// What has happened at a virtual unit, in words.
struct Happening {
    std::string text;
    bool isProblem;
};

// Of an event as the control socket tells it; of an empty line: the unit has ended. Nothing when no
// person wants to know it.
std::optional<Happening> HappeningOf(std::string_view line);

// The facts that stay the same.
struct Hello {
    std::string unit;     // where it is
    std::string version;  // of vexa-host
    bool mayControl;      // false: this viewer may only look
    bool isVirtual;       // it has a control socket
    bool canSave;         // the session is recorded
    double startSeconds;  // zero of all times, since 1970-01-01 00:00 UTC
};

std::string HelloText(const Hello& hello);
std::string StateText(const UnitState& state, std::string_view attached, double now,
                      std::size_t viewers, std::string_view recordingFailure);
std::string PacketsText(const LogPage& page, CaptureTime start,
                        std::optional<std::uint64_t> answered);
std::string AnswerText(std::uint64_t id, std::string_view problem, std::string_view json = {});
std::string TimelineText(std::span<const TimelineEntry> entries);
std::string DroppedText(std::uint64_t frames);

// The metrics in Prometheus' text format.
std::string MetricsText(const UnitState& state, std::size_t viewers, std::uint64_t droppedFrames);

// The samples as a binary message, all numbers in little-endian order:
//
//   0 uint32 1, the kind   4 uint32 number of pieces, then for each piece:
//   0 uint32 channel       4 uint32 samples in the low 31 bits; the top bit: after a gap
//   8 float64 time of the first, s   16 float64 from one to the next, s   24 float32 values
//
// A piece with an odd number of values ends with 4 bytes that mean nothing.
class SamplesMessage {
  public:
    // The next message; keeps the room of the one before.
    void Clear();
    void Add(const ChannelSamples& samples);

    [[nodiscard]] bool IsEmpty() const { return pieces == 0; }
    [[nodiscard]] std::span<const std::uint8_t> Bytes() const { return bytes; }

  private:
    std::vector<std::uint8_t> bytes;
    std::uint32_t pieces = 0;
};

}  // namespace vexahost::page
