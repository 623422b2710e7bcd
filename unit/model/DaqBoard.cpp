#include "model/DaqBoard.h"

#include <algorithm>

#include "mux/Packet.h"

namespace vexa::unit {

namespace {

bool IsInitialSync(std::span<const std::uint8_t> packet) {
    return packet.size() == kInitialSyncSize && packet[kLengthOffset] == kInitialSyncSize &&
           packet[kCommandOffset] == kInitialSyncCommand &&
           std::ranges::equal(packet.subspan(kInitialSyncSignatureOffset), kInitialSyncSignature);
}

}  // namespace

DaqBoard::DaqBoard(const DaqSettings& settings_, TimePoint opened)
    : PacedDevice(opened, settings_.measurementSize, settings_.measurementRate, Waveform::kSine),
      settings(settings_) {}

void DaqBoard::Take(std::span<const std::uint8_t> written, TimePoint now) {
    if (written.size() <= kCommandOffset || TypeClass(written[kTypeOffset]) != kClassCommand) {
        return;
    }
    if (IsInitialSync(written)) {
        if (settings.answersSync) AnswerSync(written[kSequenceOffset], now);
    } else if (settings.acknowledges) {
        Acknowledge(written, now);
    }
}

void DaqBoard::Change(const DaqSettings& changed, TimePoint now) {
    settings = changed;
    ChangeBlocks(settings.measurementSize, settings.measurementRate, now);
}

void DaqBoard::AnswerSync(std::uint8_t requestSequence, TimePoint now) {
    std::vector<std::uint8_t> reply(kInitialSyncReplySize);
    reply[kTypeOffset] = kTypeInitialSyncReply;
    reply[kLengthOffset] = kInitialSyncReplySize;
    reply[kCommandOffset] = kInitialSyncCommand;
    reply[kInitialSyncReplySequenceOffset] = requestSequence;
    std::ranges::copy(kInitialSyncReplySignature, reply.begin() + kInitialSyncReplySignatureOffset);
    Answer(std::move(reply), now + std::chrono::milliseconds(settings.syncDelayMs));
}

void DaqBoard::Acknowledge(std::span<const std::uint8_t> request, TimePoint now) {
    std::vector<std::uint8_t> reply(kReplySize);
    reply[kTypeOffset] = kTypeInitialSyncReply;
    reply[kLengthOffset] = kReplySize;
    reply[kCommandOffset] = request[kCommandOffset];
    reply[kReplyRequestSequenceOffset] = request[kSequenceOffset];
    reply[kReplyCodeOffset] = 0;
    Answer(std::move(reply), now);
}

void DaqBoard::FinishAnswer(std::span<std::uint8_t> answer, TimePoint now) {
    // Numbered as it leaves, not when it was asked for: measurements may leave in between.
    answer[kSequenceOffset] = sequence++;
    SealPacket(answer.data());
    if (answer.size() == kInitialSyncReplySize && !synced) {
        synced = true;
        StartBlocks(now);
    }
}

void DaqBoard::MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) {
    FillSamplePacket(block, sequence++, milliseconds, Wave());
    SealPacket(block.data());
    ++measurements;
    if (settings.checksumErrorEvery != 0 && measurements % settings.checksumErrorEvery == 0) {
        ++block[kChecksumOffset];
    }
}

}  // namespace vexa::unit
