#include "lib/Receiver.h"

#include <array>
#include <optional>

#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"
#include "vexahost/protocol/Replies.h"

namespace vexahost {

namespace {

// How long a read of an idle link lasts; Close ends it at once.
constexpr Milliseconds kReadTimeout{1000};
constexpr std::size_t kReadSize = 16384;

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

Receiver::Receiver(Inbox& inbox_, const ClientOptions& options_,
                   const std::atomic<ChildId>& controller)
    : inbox(inbox_), options(options_), controllerId(controller) {}

Receiver::~Receiver() { Stop(); }

void Receiver::Start(std::shared_ptr<Transport> connected) {
    frames = {};
    packets = {};
    syncAwaited = true;
    thread = std::thread([this, link = std::move(connected)] { Run(*link); });
}

void Receiver::Stop() {
    if (thread.joinable()) thread.join();
}

void Receiver::Run(Transport& link) {
    const Error error = ReadUntilError(link);
    link.Close();
    inbox.Fail(error);
}

Error Receiver::ReadUntilError(Transport& link) {
    std::array<std::uint8_t, kReadSize> buffer;
    const std::uint64_t framesBefore = frameCount;
    for (;;) {
        const auto count = link.Read(buffer, kReadTimeout);
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
        if (frames.IsViolated()) return {ErrorKind::kProtocolViolation, frames.Violation()};
        if (packets.IsViolated()) return {ErrorKind::kProtocolViolation, packets.Violation()};
    }
}

void Receiver::OnPayload(std::span<const std::uint8_t> payload) {
    if (syncAwaited && !packets.IsAwaitingSyncReply()) packets.AwaitSyncReply();
    while (const auto packet = packets.Next(payload)) {
        if (vexa::IsInitialSyncReply(packet->bytes)) syncAwaited = false;
        OnPacket(*packet);
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
    if ((id == controllerId || id == 0) && vexa::IsServiceReply(inner)) {
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
    if (!isKnown) ++strayReplies;
}

ClientStatistics Receiver::Statistics() const {
    ClientStatistics statistics;
    statistics.frames = frameCount;
    statistics.packets = packetCount;
    statistics.wrongChecksums = wrongChecksums;
    statistics.strayReplies = strayReplies;
    statistics.strayPackets = strayPackets;
    inbox.AddDaqCounts(statistics);
    return statistics;
}

}  // namespace vexahost
