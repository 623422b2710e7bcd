#include "tool/recording/Replay.h"

#include <algorithm>
#include <array>
#include <thread>

#include "tool/Connection.h"
#include "tool/Exit.h"
#include "vexahost/Client.h"
#include "vexahost/Recording.h"
#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost::tool {

namespace {

// Who gave the answer; empty when the packet is no answer.
std::string OriginOf(const DecodedPacket& packet, bool withData) {
    if (packet.direction != Direction::kFromUnit) return {};
    switch (packet.kind) {
        case PacketKind::kControllerReply:
            return "controller";
        case PacketKind::kInitialSyncReply:
            return "unit";
        case PacketKind::kMultiplexerReply: {
            const auto type = packet.bytes[vexa::kTypeOffset];
            return vexa::TypeClass(type) == vexa::kClassDaq ? "DAQ" : "unit";
        }
        case PacketKind::kChildData:
            return withData ? "child " + std::to_string(*packet.child) : "";
        default:
            return {};
    }
}

}  // namespace

void AnswerLog::Add(const DecodedPacket& packet) {
    const std::string origin = OriginOf(packet, withData);
    if (origin.empty()) return;
    Answer answer{packet.time, {packet.bytes.begin(), packet.bytes.end()}, packet.text};
    if (vexa::TypeClass(answer.bytes[vexa::kTypeOffset]) == vexa::kClassDaq) {
        // The DAQ counts its answers and its measurements with one sequence number.
        answer.bytes[vexa::kSequenceOffset] = 0;
        answer.bytes[vexa::kChecksumOffset] = packet.checksumRight ? 0 : 1;
    }
    answers[origin].push_back(std::move(answer));
}

AnswerCounts AnswerLog::Counts() const {
    AnswerCounts counts;
    for (const auto& [origin, list] : answers) counts[origin] = list.size();
    return counts;
}

bool AnswerLog::HasAtLeast(const AnswerCounts& counts) const {
    for (const auto& [origin, count] : counts) {
        const auto found = answers.find(origin);
        if (count > (found == answers.end() ? 0 : found->second.size())) return false;
    }
    return true;
}

namespace {

constexpr std::chrono::milliseconds kPoll{20};  // how often a wait checks its conditions
constexpr std::chrono::milliseconds kUnitPatience{10000};
constexpr std::chrono::milliseconds kWriteTimeout{5000};
constexpr std::chrono::milliseconds kSettling{
    200};  // for further answers that the recording does not have
constexpr std::size_t kReadSize = 16384;

ReplayStep::Kind KindOf(const CapturedFrame& frame) {
    if (!frame.bytes.empty()) return ReplayStep::Kind::kSend;
    return frame.comment == kCableOut ? ReplayStep::Kind::kPullOut : ReplayStep::Kind::kPlugIn;
}

}  // namespace

Expected<Recording> ReadRecording(const std::string& path, bool withData) {
    auto reader = PcapngReader::Open(path);
    if (!reader) return reader.error();
    Recording recording{{}, AnswerLog(withData)};
    CaptureDecoder decoder([&](const DecodedPacket& packet) { recording.answers.Add(packet); });
    std::optional<CaptureTime> start;
    while (const auto frame = reader->Next()) {
        if (!start) start = frame->time;
        const bool isEvent = frame->bytes.empty() && !frame->comment.empty();
        if (isEvent || (frame->direction == Direction::kToUnit && !frame->bytes.empty())) {
            recording.steps.push_back({KindOf(*frame),
                                       frame->time - *start,
                                       {frame->bytes.begin(), frame->bytes.end()},
                                       recording.answers.Counts()});
        }
        decoder.Add(*frame);
    }
    if (!reader->Fault().empty()) {
        return Error{ErrorKind::kInvalidArgument, path + ": " + reader->Fault()};
    }
    if (std::ranges::none_of(recording.steps, [](const ReplayStep& step) {
            return step.kind == ReplayStep::Kind::kSend;
        })) {
        return Error{ErrorKind::kInvalidArgument, path + ": the host sends nothing in it"};
    }
    return recording;
}

Replay::Replay(TransportFactory connect_, const ReplayOptions& options_)
    : connect(std::move(connect_)),
      options(options_),
      answers(options_.withData),
      decoder([this](const DecodedPacket& packet) {
          if (!LeavesOut(packet)) answers.Add(packet);
      }) {}

Expected<Done> Replay::Play(const Recording& recording) {
    const auto start = Clock::now();
    for (const ReplayStep& step : recording.steps) {
        if (IsInterrupted()) return Done{};
        const auto due = options.fast ? start : start + step.at;
        if (const auto came = Await(due, step.answersBefore); !came) return came.error();
        if (const auto done = Perform(step); !done) return done.error();
    }
    if (!link) return Done{};
    if (const auto came = Await(start, recording.answers.Counts()); !came) return came.error();
    return Await(Clock::now() + kSettling, {});
}

void Replay::LeaveInOrder() {
    constexpr Milliseconds kPatience{2000};
    if (!link) return;
    Client unit(std::move(link));
    // The unit may have a part of a packet; and the recording may have opened the controller under
    // any id.
    if (!unit.InitialSync(kPatience)) return;
    if (unit.OpenController(kControllerId, false, kPatience)) {
        static_cast<void>(unit.CloseController(kPatience));
    }
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
        if (const auto connected = PlugIn(); !connected) return connected.error();
    }
    Decode(Direction::kToUnit, step.bytes);
    sync.clear();
    if (vexa::IsInitialSync(step.bytes)) {
        sync = step.bytes;
        repeatedSyncs = 0;
        isSyncAnswered = false;
    }
    syncSent = Clock::now();
    return link->WriteAll(step.bytes, DeadlineAfter(kWriteTimeout));
}

Expected<Done> Replay::PlugIn() {
    auto connected = connect({DeadlineAfter(kUnitPatience), IsInterrupted});
    if (!connected) return connected.error();
    link = std::move(*connected);
    frames.emplace(link->UnitFraming(), [this](std::span<const std::uint8_t> frame) {
        Decode(Direction::kFromUnit, frame);
    });
    Decode(Direction::kToUnit, {}, kCableIn);
    return Done{};
}

void Replay::PullOut() {
    if (link) link->Close();
    link.reset();
}

// A missing answer is waited for once: later waits expect one answer less of its origin.
AnswerCounts Replay::StillExpected(const AnswerCounts& counts) const {
    auto expected = counts;
    for (const auto& [origin, count] : missing) {
        if (const auto found = expected.find(origin); found != expected.end()) {
            found->second -= std::min(found->second, count);
        }
    }
    return expected;
}

Expected<Done> Replay::Await(Clock::time_point time, const AnswerCounts& counts) {
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
        if (!answers.HasAtLeast(expected)) {
            if (const auto repeated = RepeatSync(now); !repeated) return repeated.error();
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - now);
        const auto pause = now < time ? std::min(left, kPoll) : kPoll;
        if (const auto received = Receive(pause); !received) return received.error();
    }
    return Done{};
}

// A unit that is just noticing that its last host has left drops what the new one sends. Hosts
// repeat an initial sync until it is answered; here only once an answer is hardly to be expected.
Expected<Done> Replay::RepeatSync(Clock::time_point now) {
    constexpr std::chrono::milliseconds kSyncInterval{1500};
    if (sync.empty() || !link || now < syncSent + kSyncInterval) return Done{};
    syncSent = now;
    ++repeatedSyncs;
    return link->WriteAll(sync, DeadlineAfter(kWriteTimeout));
}

// A slow unit answers the first sync and the repeated ones; the host had one answer. True for each
// further one, of which there are as many as the sync was repeated.
bool Replay::LeavesOut(const DecodedPacket& packet) {
    if (packet.kind != PacketKind::kInitialSyncReply) return false;
    if (isSyncAnswered && repeatedSyncs > 0) {
        --repeatedSyncs;
        return true;
    }
    isSyncAnswered = true;
    return false;
}

Expected<Done> Replay::Receive(std::chrono::milliseconds timeout) {
    std::array<std::uint8_t, kReadSize> buffer;
    if (!link) {
        std::this_thread::sleep_for(timeout);
        return Done{};
    }
    const auto count = link->Read(buffer, timeout);
    if (!count) return count.error();
    frames->Add(std::span<const std::uint8_t>(buffer).first(*count));
    return Done{};
}

void Replay::Decode(Direction direction, std::span<const std::uint8_t> bytes, const char* event) {
    decoder.Add({std::chrono::system_clock::now().time_since_epoch(), direction, bytes, event});
}

}  // namespace vexahost::tool
