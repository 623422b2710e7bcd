// Plays the host's side of a recording to a unit, and collects the answers for comparison.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vexahost/Client.h"
#include "vexahost/Decoder.h"
#include "vexahost/Recording.h"

namespace vexahost::tool {

struct Answer {
    CaptureTime time{};
    std::vector<std::uint8_t> bytes;  // without the parts that differ from one run to the next
    std::string text;                 // in words
};

// How many answers have come from each origin: "controller", "unit", "DAQ" or "child ID".
using AnswerCounts = std::map<std::string, std::size_t>;

// The answers of a conversation, in order for each origin; answers of different origins may
// overtake each other. One thread at a time.
class AnswerLog {
  public:
    // With `withData` the data of children counts as answers too.
    explicit AnswerLog(bool withData_) : withData(withData_) {}

    // Adds the packet, if it is an answer.
    void Add(const DecodedPacket& packet);

    using ByOrigin = std::map<std::string, std::vector<Answer>>;
    [[nodiscard]] const ByOrigin& Answers() const { return answers; }

    [[nodiscard]] AnswerCounts Counts() const;

    // True when each origin has given at least as many answers as in `counts`.
    [[nodiscard]] bool HasAtLeast(const AnswerCounts& counts) const;

  private:
    const bool withData;
    ByOrigin answers;
};

struct ReplayOptions {
    bool fast = false;      // as fast as the answers come, not at the recorded pace
    bool withData = false;  // compare the data of children too
    std::chrono::milliseconds patience{3000};  // with a recorded answer that does not come
};

// One action of the host in the recording.
struct ReplayStep {
    enum class Kind { kPlugIn, kPullOut, kSend };

    Kind kind;
    std::chrono::nanoseconds at{};    // since the recording's start
    std::vector<std::uint8_t> bytes;  // kSend
    AnswerCounts answersBefore;       // answers recorded before this step
};

// The host's actions in a recording, and the answers to them.
struct Recording {
    std::vector<ReplayStep> steps;
    AnswerLog answers;
};

// kInvalidArgument when `path` is no recording or the host sends nothing; "-" is standard input.
Expected<Recording> ReadRecording(const std::string& path, bool withData);

// One thread at a time.
class Replay {
  public:
    Replay(TransportFactory connect, const ReplayOptions& options);

    // Plays all steps and waits for the answers. kCannotConnect, or kLinkLost when the unit
    // disconnects early. Ends early when interrupted.
    Expected<Done> Play(const Recording& recording);

    // After a Play that ended early: closes what it has opened. A unit on a serial line does not
    // notice that its host has left.
    void LeaveInOrder();

    // The answers that have come.
    [[nodiscard]] const AnswerLog& Answers() const { return answers; }

  private:
    using Clock = std::chrono::steady_clock;

    Expected<Done> Perform(const ReplayStep& step);
    Expected<Done> PlugIn();
    void PullOut();
    // Receives until `time` is reached and at least `counts` answers have come, or until patience
    // with the answers runs out.
    Expected<Done> Await(Clock::time_point time, const AnswerCounts& counts);
    [[nodiscard]] AnswerCounts StillExpected(const AnswerCounts& counts) const;
    Expected<Done> RepeatSync(Clock::time_point now);
    bool LeavesOut(const DecodedPacket& packet);
    Expected<Done> Receive(std::chrono::milliseconds timeout);
    void Decode(Direction direction, std::span<const std::uint8_t> bytes, const char* event = "");

    const TransportFactory connect;
    const ReplayOptions options;
    AnswerLog answers;
    AnswerCounts missing;  // answers that did not come in time
    CaptureDecoder decoder;
    std::unique_ptr<Transport> link;
    std::optional<FrameCutter> frames;  // of the link
    std::vector<std::uint8_t> sync;     // the last packet sent, if it was an initial sync
    Clock::time_point syncSent;
    std::size_t repeatedSyncs = 0;
    bool isSyncAnswered = false;
};

}  // namespace vexahost::tool
