#include "model/PacedDevice.h"

#include <algorithm>

#include "protocol/Packet.h"

namespace vexa::unit {

namespace {
constexpr std::size_t kSamplesOffset = kPayloadOffset + 4;
}

PacedDevice::PacedDevice(TimePoint opened, std::size_t blockSize, double rate, Waveform waveform)
    : openedAt(opened), pacer(rate), wave(waveform), lastBlock(blockSize) {}

TimePoint PacedDevice::NextDue() const {
    return answers.empty() ? pacer.Due() : std::min(answers.front().due, pacer.Due());
}

std::span<const std::uint8_t> PacedDevice::Next(TimePoint now) {
    if (!answers.empty() && answers.front().due <= now) {
        lastAnswer = std::move(answers.front().bytes);
        answers.pop_front();
        FinishAnswer(lastAnswer, now);
        return lastAnswer;
    }
    MakeBlock(lastBlock, MillisecondsBetween(openedAt, now));
    pacer.Advance(now);
    return lastBlock;
}

void PacedDevice::ChangeBlocks(std::size_t blockSize, double rate, TimePoint now) {
    lastBlock.resize(blockSize);
    pacer.ChangeRate(rate, now);
}

void PacedDevice::Answer(std::vector<std::uint8_t> bytes, TimePoint due) {
    if (!answers.empty()) due = std::max(due, answers.back().due);
    answers.push_back({due, std::move(bytes)});
}

void PacedDevice::FinishAnswer(std::span<std::uint8_t> /*answer*/, TimePoint /*now*/) {}

void FillSamplePacket(std::span<std::uint8_t> block, std::uint8_t counter,
                      std::uint32_t milliseconds, WaveSource& wave) {
    block[kTypeOffset] = kClassDaq;
    block[kLengthOffset] = static_cast<std::uint8_t>(std::min(block.size(), kMaxPacketSize));
    block[kSequenceOffset] = counter;
    StoreLe32(block, kPayloadOffset, milliseconds);
    wave.Fill(block.subspan(kSamplesOffset));
}

}  // namespace vexa::unit
