#include "Replay.h"

#include <algorithm>
#include <array>
#include <thread>

#include "Interrupt.h"
#include "capture/PcapngReader.h"

using vexahost::CapturedFrame;
using vexahost::DecodedPacket;
using vexahost::Direction;
using vexahost::Done;
using vexahost::Error;
using vexahost::ErrorKind;
using vexahost::Expected;

namespace {

constexpr std::chrono::milliseconds kLookUp{20};  // how often a wait looks around
constexpr std::chrono::milliseconds kWriteTimeout{5000};
constexpr std::chrono::milliseconds kSettling{200};  // for answers that were not recorded
constexpr std::size_t kReadSize = 16384;

ReplayStep::Kind KindOf(const CapturedFrame& frame) {
    if (!frame.bytes.empty()) return ReplayStep::Kind::kSend;
    return frame.comment == vexahost::kCableOut ? ReplayStep::Kind::kPullOut
                                                : ReplayStep::Kind::kPlugIn;
}

}  // namespace

Expected<Recording> ReadRecording(std::span<const std::uint8_t> capture, bool withData) {
    Recording recording{{}, AnswerLog(withData)};
    vexahost::CaptureDecoder decoder(
        [&](const DecodedPacket& packet) { recording.answers.Take(packet); });
    vexahost::PcapngReader reader(capture);
    std::optional<vexahost::CaptureTime> start;
    while (const auto frame = reader.Next()) {
        if (!start) start = frame->time;
        const bool isEvent = frame->bytes.empty() && !frame->comment.empty();
        if (isEvent || (frame->direction == Direction::kToUnit && !frame->bytes.empty())) {
            recording.steps.push_back({KindOf(*frame),
                                       frame->time - *start,
                                       {frame->bytes.begin(), frame->bytes.end()},
                                       recording.answers.Counts()});
        }
        decoder.Take(*frame);
    }
    if (!reader.Fault().empty()) return Error{ErrorKind::kInvalidArgument, reader.Fault()};
    if (std::ranges::none_of(recording.steps, [](const ReplayStep& step) {
            return step.kind == ReplayStep::Kind::kSend;
        })) {
        return Error{ErrorKind::kInvalidArgument, "the host sends nothing in it"};
    }
    return recording;
}

Replay::Replay(vexahost::TransportFactory connect_, const ReplayOptions& options_)
    : connect(std::move(connect_)),
      options(options_),
      answers(options_.withData),
      decoder([this](const DecodedPacket& packet) { answers.Take(packet); }) {}

Expected<Done> Replay::Play(const Recording& recording) {
    const auto start = Clock::now();
    for (const ReplayStep& step : recording.steps) {
        if (IsInterrupted()) return Done{};
        const auto due = options.fast ? start : start + step.at;
        if (const auto came = Await(due, step.answersBefore); !came) return came.Failure();
        if (const auto done = Perform(step); !done) return done.Failure();
    }
    if (!link) return Done{};
    if (const auto came = Await(start, recording.answers.Counts()); !came) return came.Failure();
    return Await(Clock::now() + kSettling, {});
}

Expected<Done> Replay::Perform(const ReplayStep& step) {
    if (step.kind == ReplayStep::Kind::kPullOut) {
        PullOut();
        return Done{};
    }
    if (step.kind == ReplayStep::Kind::kPlugIn) {
        PullOut();
        return PlugIn();
    }
    if (!link) {
        if (const auto connected = PlugIn(); !connected) return connected.Failure();
    }
    Decode(Direction::kToUnit, step.bytes);
    return link->WriteAll(step.bytes, kWriteTimeout);
}

Expected<Done> Replay::PlugIn() {
    auto connected = connect();
    if (!connected) return connected.Failure();
    link = std::move(*connected);
    frames.emplace(link->UnitFraming(), [this](std::span<const std::uint8_t> frame) {
        Decode(Direction::kFromUnit, frame);
    });
    Decode(Direction::kToUnit, {}, vexahost::kCableIn);
    return Done{};
}

void Replay::PullOut() {
    if (link) link->Close();
    link.reset();
}

// A missing answer is waited for once: from there on one fewer of its origin will do.
std::map<std::string, std::size_t> Replay::StillExpected(
    const std::map<std::string, std::size_t>& counts) const {
    auto expected = counts;
    for (const auto& [origin, count] : missing) {
        if (const auto found = expected.find(origin); found != expected.end()) {
            found->second -= std::min(found->second, count);
        }
    }
    return expected;
}

Expected<Done> Replay::Await(Clock::time_point time,
                             const std::map<std::string, std::size_t>& counts) {
    const auto expected = StillExpected(counts);
    const auto patienceEnds = std::max(time, Clock::now()) + options.patience;
    while (!IsInterrupted()) {
        const auto now = Clock::now();
        if (now >= time && answers.HasAtLeast(expected)) return Done{};
        if (now >= patienceEnds) {
            auto came = answers.Counts();
            for (const auto& [origin, count] : counts) {
                missing[origin] = count - std::min(count, came[origin]);
            }
            return Done{};
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - now);
        const auto pause = now < time ? std::min(left, kLookUp) : kLookUp;
        if (const auto taken = TakeWhatComes(pause); !taken) return taken.Failure();
    }
    return Done{};
}

Expected<Done> Replay::TakeWhatComes(std::chrono::milliseconds timeout) {
    std::array<std::uint8_t, kReadSize> buffer;
    if (!link) {
        std::this_thread::sleep_for(timeout);
        return Done{};
    }
    const auto count = link->Read(buffer, timeout);
    if (!count) return count.Failure();
    frames->Take(std::span<const std::uint8_t>(buffer).first(*count));
    return Done{};
}

void Replay::Decode(Direction direction, std::span<const std::uint8_t> bytes, const char* event) {
    decoder.Take({std::chrono::system_clock::now().time_since_epoch(), direction, bytes, event});
}
