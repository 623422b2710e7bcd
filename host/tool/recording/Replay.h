// Plays the host's side of a recording to a unit.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AnswerLog.h"
#include "capture/FrameCutter.h"
#include "vexahost/Client.h"

struct ReplayOptions {
    bool fast = false;      // not at the recorded pace, but as fast as the answers come
    bool withData = false;  // what children send is compared too
    std::chrono::milliseconds patience{3000};  // for an answer that was recorded
};

/// Something that the host did in the recording.
struct ReplayStep {
    enum class Kind { kPlugIn, kPullOut, kSend };

    Kind kind;
    std::chrono::nanoseconds at{};                     // since the recording's start
    std::vector<std::uint8_t> bytes;                   // kSend
    std::map<std::string, std::size_t> answersBefore;  // that were there by then
};

/// What the host did in a capture, and what it was answered.
struct Recording {
    std::vector<ReplayStep> steps;
    AnswerLog answers;
};

/// `capture` is the whole file. kInvalidArgument when it cannot be used.
vexahost::Expected<Recording> ReadRecording(std::span<const std::uint8_t> capture, bool withData);

/// Used by one thread.
class Replay {
  public:
    Replay(vexahost::TransportFactory connect, const ReplayOptions& options);

    /// Plays all steps and waits for the answers. kCannotConnect, or kLinkLost when the unit left
    /// before it was to. Ends early when interrupted.
    vexahost::Expected<vexahost::Done> Play(const Recording& recording);

    /// What has been answered.
    [[nodiscard]] const AnswerLog& Answers() const { return answers; }

  private:
    using Clock = std::chrono::steady_clock;

    vexahost::Expected<vexahost::Done> Perform(const ReplayStep& step);
    vexahost::Expected<vexahost::Done> PlugIn();
    void PullOut();
    // Takes what comes until the time has come and so many answers are there, or patience ends.
    vexahost::Expected<vexahost::Done> Await(Clock::time_point time,
                                             const std::map<std::string, std::size_t>& counts);
    [[nodiscard]] std::map<std::string, std::size_t> StillExpected(
        const std::map<std::string, std::size_t>& counts) const;
    vexahost::Expected<vexahost::Done> TakeWhatComes(std::chrono::milliseconds timeout);
    void Decode(vexahost::Direction direction, std::span<const std::uint8_t> bytes,
                const char* event = "");

    const vexahost::TransportFactory connect;
    const ReplayOptions options;
    AnswerLog answers;
    std::map<std::string, std::size_t> missing;  // by origin: answers that were waited for in vain
    vexahost::CaptureDecoder decoder;
    std::unique_ptr<vexahost::Transport> link;
    std::optional<vexahost::FrameCutter> frames;  // of the link
};
