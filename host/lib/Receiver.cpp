#include "Receiver.h"

#include <array>
#include <optional>

#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"
#include "vexahost/protocol/Replies.h"

namespace vexahost {

namespace {

// Only says how often the thread looks up from an idle link; Close ends a read at once.
constexpr Milliseconds kReadTimeout{1000};
constexpr std::size_t kReadSize = 16384;

bool IsReply(std::span<const std::uint8_t> packet) {
    return packet.size() == vexa::kReplySize && packet[vexa::kLengthOffset] == vexa::kReplySize &&
           (packet[vexa::kTypeOffset] == vexa::kTypeAcknowledge ||
            packet[vexa::kTypeOffset] == vexa::kTypeError);
}

// Whose reply a packet outside tunnels is, if it is one.
std::optional<ReplySource> ReplySourceOf(const PacketView& packet) {
    if (vexa::IsInitialSyncReply(packet.bytes)) return ReplySource::kInitialSync;
    const bool fromDaq = packet.checksumRight && packet.bytes.size() == vexa::kReplySize &&
                         packet.bytes[vexa::kTypeOffset] == vexa::kTypeInitialSyncReply;
    if (fromDaq || IsReply(packet.bytes)) return ReplySource::kMultiplexer;
    return std::nullopt;
}

Block MakeBlock(std::span<const std::uint8_t> bytes, bool checksumRight, std::uint8_t sequence) {
    return {
        {bytes.begin(), bytes.end()}, std::chrono::steady_clock::now(), checksumRight, sequence};
}

}  // namespace

Client::Receiver::Receiver(Client& owner) : client(owner) {}

Client::Receiver::~Receiver() { Stop(); }

void Client::Receiver::Start(std::shared_ptr<Transport> connected) {
    frames = {};
    packets = {};
    syncAwaited = true;
    thread = std::thread([this, link = std::move(connected)] { Run(*link); });
}

void Client::Receiver::Stop() {
    if (thread.joinable()) thread.join();
}

void Client::Receiver::Run(Transport& link) {
    const Error error = ReadUntilError(link);
    link.Close();
    client.pending->Fail(error);
    client.inbox->Fail(error);
}

Error Client::Receiver::ReadUntilError(Transport& link) {
    std::array<std::uint8_t, kReadSize> buffer;
    const std::uint64_t framesBefore = frameCount;
    for (;;) {
        const auto count = link.Read(buffer, kReadTimeout);
        if (!count) return count.Failure();
        std::span<const std::uint8_t> input = std::span(buffer).first(*count);
        if (link.UnitFraming() == Framing::kNone) {
            TakePayload(input);
            input = {};
        }
        for (auto piece = frames.Next(input); !piece.empty(); piece = frames.Next(input)) {
            TakePayload(piece);
        }
        frameCount = framesBefore + frames.FrameCount();
        if (frames.IsViolated()) return {ErrorKind::kProtocolViolation, frames.Violation()};
        if (packets.IsViolated()) return {ErrorKind::kProtocolViolation, packets.Violation()};
    }
}

void Client::Receiver::TakePayload(std::span<const std::uint8_t> payload) {
    if (syncAwaited && !packets.IsAwaitingSyncReply()) packets.AwaitSyncReply();
    while (const auto packet = packets.Next(payload)) {
        if (vexa::IsInitialSyncReply(packet->bytes)) syncAwaited = false;
        Dispatch(*packet);
    }
}

void Client::Receiver::Dispatch(const PacketView& packet) {
    const auto bytes = packet.bytes;
    ++packetCount;
    if (client.options.tap) client.options.tap(Direction::kFromUnit, bytes);

    const std::uint8_t typeClass = vexa::TypeClass(bytes[vexa::kTypeOffset]);
    const bool fromDaq = typeClass == vexa::kClassDaq;
    if (!packet.checksumRight && !fromDaq) {
        ++wrongChecksums;
    } else if (const auto source = ReplySourceOf(packet)) {
        TakeReply(*source, bytes);
    } else if (fromDaq) {
        client.inbox->DeliverDaq(
            MakeBlock(bytes, packet.checksumRight, bytes[vexa::kSequenceOffset]));
    } else if (typeClass == vexa::kClassTunnel && bytes.size() >= vexa::kTunnelHeaderSize) {
        TakeTunnel(bytes);
    } else {
        ++strayPackets;
    }
}

void Client::Receiver::TakeTunnel(std::span<const std::uint8_t> packet) {
    const ChildId id = vexa::LoadLe32(packet, vexa::kTunnelIdOffset);
    const auto inner = packet.subspan(vexa::kTunnelHeaderSize);
    if (client.inbox->Deliver(id, MakeBlock(inner, true, packet[vexa::kSequenceOffset]))) return;
    // The controller answers under its own id, or under 0 when its entry is gone by then.
    if ((id == client.controllerId || id == 0) && IsReply(inner)) {
        TakeReply(ReplySource::kController, inner);
    } else {
        ++strayPackets;
    }
}

void Client::Receiver::TakeReply(ReplySource source, std::span<const std::uint8_t> reply) {
    const bool isSync = source == ReplySource::kInitialSync;
    const bool isKnown =
        client.pending->Deliver({source,
                                 reply[vexa::kTypeOffset] == vexa::kTypeError,
                                 reply[vexa::kCommandOffset],
                                 reply[vexa::kReplyRequestSequenceOffset],
                                 isSync ? std::uint8_t{0} : reply[vexa::kReplyCodeOffset],
                                 {reply.begin(), reply.end()}});
    if (!isKnown) ++strayReplies;
}

ClientStatistics Client::Receiver::Statistics() const {
    ClientStatistics statistics;
    statistics.frames = frameCount;
    statistics.packets = packetCount;
    statistics.wrongChecksums = wrongChecksums;
    statistics.strayReplies = strayReplies;
    statistics.strayPackets = strayPackets;
    statistics.daqDropped = client.inbox->DaqDropped();
    return statistics;
}

}  // namespace vexahost
