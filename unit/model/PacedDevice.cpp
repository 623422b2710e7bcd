#include "model/PacedDevice.h"

#include <algorithm>

#include "mux/Packet.h"

namespace vexa::unit {

namespace {
constexpr std::size_t kSamplesOffset = kPayloadOffset + 4;
}

PacedDevice::PacedDevice(TimePoint opened, std::size_t blockSize, double rate, Waveform waveform)
    : opened_(opened), pacer_(rate), wave_(waveform), block_(blockSize) {}

TimePoint PacedDevice::NextDue() const {
    return answers_.empty() ? pacer_.Due() : std::min(answers_.front().due, pacer_.Due());
}

std::span<const std::uint8_t> PacedDevice::Next(TimePoint now) {
    if (!answers_.empty() && answers_.front().due <= now) {
        answer_ = std::move(answers_.front().bytes);
        answers_.pop_front();
        FinishAnswer(answer_, now);
        return answer_;
    }
    MakeBlock(block_, MillisecondsBetween(opened_, now));
    pacer_.Advance(now);
    return block_;
}

void PacedDevice::Answer(std::vector<std::uint8_t> answer, TimePoint due) {
    if (!answers_.empty()) due = std::max(due, answers_.back().due);
    answers_.push_back({due, std::move(answer)});
}

void PacedDevice::FinishAnswer(std::span<std::uint8_t> /*answer*/, TimePoint /*now*/) {}

void FillSamplePacket(std::span<std::uint8_t> block, std::uint8_t counter,
                      std::uint32_t milliseconds, WaveSource& wave) {
    block[kTypeOffset] = kClassDaqReply;
    block[kLengthOffset] = static_cast<std::uint8_t>(std::min(block.size(), kMaxPacketSize));
    block[kSequenceOffset] = counter;
    StoreLe32(&block[kPayloadOffset], milliseconds);
    wave.Fill(block.subspan(kSamplesOffset));
}

}  // namespace vexa::unit
