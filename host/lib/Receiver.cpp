#include "lib/Receiver.h"

#include <signal.h>

#include <array>
#include <exception>
#include <optional>
#include <string>

#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"
#include "vexahost/protocol/Replies.h"

namespace vexahost {

namespace {

// How long a read of an idle link lasts; Close ends it at once.
constexpr Milliseconds kReadTimeout{1000};
constexpr std::size_t kReadSize = 16384;

// While the step is lost: how often to look, how often to send an initial sync, and for how long.
constexpr Milliseconds kSearchTimeout{100};
constexpr Milliseconds kSyncRepeat{500};
constexpr std::chrono::seconds kSearchLimit{5};

// Which kind of reply a packet outside tunnels is; nothing when it is none.
std::optional<ReplySource> ReplySourceOf(const PacketView& packet) {
    if (vexa::IsInitialSyncReply(packet.bytes)) return ReplySource::kInitialSync;
    const bool fromDaq = packet.checksumRight && vexa::IsDaqReply(packet.bytes);
    if (fromDaq || vexa::IsServiceReply(packet.bytes)) return ReplySource::kMultiplexer;
    return std::nullopt;
}

Block MakeBlock(std::span<const std::uint8_t> bytes, bool checksumRight, std::uint8_t sequence) {
    return {
        {bytes.begin(), bytes.end()}, std::chrono::steady_clock::now(), checksumRight, sequence};
}

}  // namespace

Receiver::Receiver(Inbox& inbox_, const ClientOptions& options_, std::function<void()> sendSync_)
    : inbox(inbox_), options(options_), sendSync(std::move(sendSync_)) {}

Receiver::~Receiver() { Stop(); }

void Receiver::Start(std::shared_ptr<Transport> connected) {
    frames = {};
    packets = {};
    packets.LoseStep();
    searchEnds.reset();
    syncAwaited = true;
    // The program's signals are for its own threads.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread = std::thread([this, link = std::move(connected)] { Run(*link); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Receiver::Stop() {
    if (thread.joinable()) thread.join();
}

void Receiver::Run(Transport& link) {
    Error error{ErrorKind::kLinkLost, {}};
    try {
        error = ReadUntilError(link);
    } catch (const std::exception& thrown) {  // by the tap, or for want of memory
        error.message = std::string("the receiving thread has failed: ") + thrown.what();
    }
    // In this order: whoever writes to the closed link finds the reason.
    inbox.Fail(error);
    link.Close();
}

Error Receiver::ReadUntilError(Transport& link) {
    std::array<std::uint8_t, kReadSize> buffer;
    const std::uint64_t framesBefore = frameCount;
    for (;;) {
        const auto count = link.Read(buffer, searchEnds ? kSearchTimeout : kReadTimeout);
        if (!count) return count.error();
        std::span<const std::uint8_t> input = std::span(buffer).first(*count);
        if (link.UnitFraming() == Framing::kNone) {
            OnPayload(input);
            input = {};
        }
        for (auto piece = frames.Next(input); !piece.empty(); piece = frames.Next(input)) {
            OnPayload(piece);
        }
        frameCount = framesBefore + frames.FrameCount();
        if (frames.IsBusy()) {
            return {ErrorKind::kBusy, "another host is connected to the unit"};
        }
        if (frames.IsViolated()) return {ErrorKind::kProtocolViolation, frames.Violation()};
        if (auto error = Resynchronise()) return *error;
    }
}

std::optional<Error> Receiver::Resynchronise() {
    if (!searchEnds) return std::nullopt;
    const auto now = std::chrono::steady_clock::now();
    if (packets.IsInStep()) {
        searchEnds.reset();
    } else if (now >= *searchEnds) {
        return Error{ErrorKind::kProtocolViolation,
                     violation + "; no initial sync has brought the link back in step"};
    } else if (now >= nextSync) {
        nextSync = now + kSyncRepeat;
        syncAwaited = true;
        sendSync();
    }
    return std::nullopt;
}

void Receiver::OnPayload(std::span<const std::uint8_t> payload) {
    while (!payload.empty()) {
        if (syncAwaited && !packets.IsAwaitingSyncReply()) packets.AwaitSyncReply();
        if (!syncAwaited && packets.IsAwaitingSyncReply() && packets.IsInStep()) {
            packets.EndSearch();
        }
        while (const auto packet = packets.Next(payload)) {
            if (vexa::IsInitialSyncReply(packet->bytes)) syncAwaited = false;
            OnPacket(*packet);
        }
        if (!packets.IsViolated()) continue;
        ++resynchronisations;
        violation = packets.Violation();
        searchEnds = std::chrono::steady_clock::now() + kSearchLimit;
        nextSync = {};
        packets.LoseStep();
    }
}

void Receiver::OnPacket(const PacketView& packet) {
    const auto bytes = packet.bytes;
    ++packetCount;
    if (options.tap) options.tap(Direction::kFromUnit, bytes);

    const std::uint8_t typeClass = vexa::TypeClass(bytes[vexa::kTypeOffset]);
    const bool fromDaq = typeClass == vexa::kClassDaq;
    if (!packet.checksumRight && !fromDaq) {
        ++wrongChecksums;
    } else if (const auto source = ReplySourceOf(packet)) {
        if (fromDaq && *source == ReplySource::kMultiplexer) {
            inbox.NoteDaqSequence(bytes[vexa::kSequenceOffset]);
        }
        OnReply(*source, bytes);
    } else if (fromDaq) {
        inbox.DeliverDaq(MakeBlock(bytes, packet.checksumRight, bytes[vexa::kSequenceOffset]));
    } else if (typeClass == vexa::kClassTunnel && bytes.size() >= vexa::kTunnelHeaderSize) {
        OnTunnelPacket(bytes);
    } else {
        ++strayPackets;
    }
}

void Receiver::OnTunnelPacket(std::span<const std::uint8_t> packet) {
    const ChildId id = vexa::LoadLe32(packet, vexa::kTunnelIdOffset);
    const auto inner = packet.subspan(vexa::kTunnelHeaderSize);
    if (inbox.DeliverBlock(id, MakeBlock(inner, true, packet[vexa::kSequenceOffset]))) return;
    // The controller answers under its own id, or under 0 when its entry is gone by then.
    if (inbox.IsController(id) && vexa::IsServiceReply(inner) && vexa::HasRightChecksum(inner)) {
        OnReply(ReplySource::kController, inner);
    } else {
        ++strayPackets;
    }
}

void Receiver::OnReply(ReplySource source, std::span<const std::uint8_t> reply) {
    const bool isSync = source == ReplySource::kInitialSync;
    const bool isKnown =
        inbox.DeliverReply({source,
                            reply[vexa::kTypeOffset] == vexa::kTypeError,
                            reply[vexa::kCommandOffset],
                            reply[vexa::kReplyRequestSequenceOffset],
                            isSync ? std::uint8_t{0} : reply[vexa::kReplyCodeOffset],
                            {reply.begin(), reply.end()}});
    // The client's own initial syncs are no requests.
    if (!isKnown && !(isSync && searchEnds)) ++strayReplies;
}

ClientStatistics Receiver::Statistics() const {
    ClientStatistics statistics;
    statistics.frames = frameCount;
    statistics.packets = packetCount;
    statistics.wrongChecksums = wrongChecksums;
    statistics.strayReplies = strayReplies;
    statistics.strayPackets = strayPackets;
    statistics.resynchronisations = resynchronisations;
    inbox.AddDaqCounts(statistics);
    return statistics;
}

}  // namespace vexahost
