#include "AnswerLog.h"

#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"

namespace {

using vexahost::DecodedPacket;
using vexahost::Direction;
using vexahost::PacketKind;

// Empty when the packet is no answer.
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

void AnswerLog::Take(const DecodedPacket& packet) {
    const std::string origin = OriginOf(packet, withData);
    if (origin.empty()) return;
    Answer answer{packet.time, {packet.bytes.begin(), packet.bytes.end()}, packet.text};
    if (vexa::TypeClass(answer.bytes[vexa::kTypeOffset]) == vexa::kClassDaq) {
        // The DAQ numbers its answers together with its measurements.
        answer.bytes[vexa::kSequenceOffset] = 0;
        answer.bytes[vexa::kChecksumOffset] = packet.checksumRight ? 0 : 1;
    }
    answers[origin].push_back(std::move(answer));
}

std::map<std::string, std::size_t> AnswerLog::Counts() const {
    std::map<std::string, std::size_t> counts;
    for (const auto& [origin, list] : answers) counts[origin] = list.size();
    return counts;
}

bool AnswerLog::HasAtLeast(const std::map<std::string, std::size_t>& counts) const {
    for (const auto& [origin, count] : counts) {
        const auto found = answers.find(origin);
        if (count > (found == answers.end() ? 0 : found->second.size())) return false;
    }
    return true;
}
