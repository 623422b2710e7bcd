#include "model/DaqBoard.h"

#include <algorithm>

#include "protocol/InitialSync.h"
#include "protocol/Packet.h"
#include "protocol/Replies.h"

namespace vexa::unit {

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
    BuildInitialSyncReply(std::span(reply).first<kInitialSyncReplySize>(), 0, requestSequence);
    Answer(std::move(reply), now + std::chrono::milliseconds(settings.syncDelayMs));
}

void DaqBoard::Acknowledge(std::span<const std::uint8_t> request, TimePoint now) {
    std::vector<std::uint8_t> reply(kReplySize);
    BuildReply(std::span(reply).first<kReplySize>(), kTypeDaqAcknowledge, 0,
               request[kCommandOffset], request[kSequenceOffset], 0);
    Answer(std::move(reply), now);
}

void DaqBoard::FinishAnswer(std::span<std::uint8_t> answer, TimePoint now) {
    // Numbered as it leaves, not when it was asked for: measurements may leave in between.
    answer[kSequenceOffset] = sequence++;
    SealPacket(answer);
    if (answer.size() == kInitialSyncReplySize && !synced) {
        synced = true;
        StartBlocks(now);
    }
}

void DaqBoard::MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) {
    FillSamplePacket(block, sequence++, milliseconds, Wave());
    SealPacket(block);
    ++measurements;
    if (settings.checksumErrorEvery != 0 && measurements % settings.checksumErrorEvery == 0) {
        ++block[kChecksumOffset];
    }
}

}  // namespace vexa::unit
