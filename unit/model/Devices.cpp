#include "model/Devices.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "protocol/InitialSync.h"
#include "protocol/Packet.h"
#include "protocol/Replies.h"

namespace vexa::unit {

namespace {

constexpr std::chrono::seconds kMaxBacklog{1};
constexpr std::size_t kSamplesOffset = kPayloadOffset + 4;

constexpr std::size_t kReportTypeOffset = 1;
constexpr std::size_t kReportSampleOffset = 2;
constexpr std::size_t kReportTimeOffset = 4;

constexpr std::uint8_t kReportKindMask = 0xC0;  // top bits of byte 0
constexpr std::uint8_t kInitRequest = 0x40;
constexpr std::uint8_t kInitAnswer = 0x80;

// Modulo 2^32.
std::uint32_t MillisecondsBetween(TimePoint start, TimePoint now) {
    return static_cast<std::uint32_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now - start).count());
}

// A board with a source has no measurements of its own.
double RateOf(const DaqSettings& settings) {
    return settings.source ? 0 : settings.measurementRate;
}

// Each device has noise of its own.
WaveSource WaveOf(const DeviceSettings& settings, std::uint32_t seed) {
    return {settings.waveform, Random(seed, settings.name)};
}

}  // namespace

std::int16_t WaveSource::NextSample() {
    const int at = phase;
    phase = (phase + 1) % kWavePeriod;
    switch (waveform) {
        case Waveform::kSine:
            return static_cast<std::int16_t>(
                std::lround(kWavePeak * std::sin(2 * std::numbers::pi * at / kWavePeriod)));
        case Waveform::kRamp:
            return static_cast<std::int16_t>(-kWavePeak + at * 2 * kWavePeak / kWavePeriod);
        case Waveform::kSquare:
            return at < kWavePeriod / 2 ? kWavePeak : static_cast<std::int16_t>(-kWavePeak);
        case Waveform::kNoise:
            return static_cast<std::int16_t>(
                static_cast<std::int32_t>(noise.Below(2 * kWavePeak + 1)) - kWavePeak);
    }
    return 0;
}

void WaveSource::Fill(std::span<std::uint8_t> bytes) {
    for (; bytes.size() >= 2; bytes = bytes.subspan(2)) {
        const auto sample = static_cast<std::uint16_t>(NextSample());
        bytes[0] = static_cast<std::uint8_t>(sample);
        bytes[1] = static_cast<std::uint8_t>(sample >> 8U);
    }
    if (!bytes.empty()) bytes[0] = 0;
}

void FillSamplePacket(std::span<std::uint8_t> block, std::uint8_t counter,
                      std::uint32_t milliseconds, WaveSource& wave) {
    block[kTypeOffset] = kClassDaq;
    block[kLengthOffset] = static_cast<std::uint8_t>(std::min(block.size(), kMaxPacketSize));
    block[kSequenceOffset] = counter;
    StoreLe32(block, kPayloadOffset, milliseconds);
    wave.Fill(block.subspan(kSamplesOffset));
}

void Pacer::Start(TimePoint now) {
    start = now;
    sent = 0;
}

void Pacer::ChangeRate(double rate_, TimePoint now) {
    rate = rate_;
    if (start != kNever) Start(now);
}

TimePoint Pacer::Due() const {
    if (start == kNever || rate <= 0) return kNever;
    const std::chrono::duration<double> offset(static_cast<double>(sent + 1) / rate);
    // Less than a block a century would overflow the clock.
    constexpr std::chrono::hours kFarAway{24 * 365 * 100};
    if (offset > kFarAway) return kNever;
    return start + std::chrono::duration_cast<Clock::duration>(offset);
}

void Pacer::Advance(TimePoint now) {
    ++sent;
    if (Due() < now - kMaxBacklog) Start(now - kMaxBacklog);
}

DeviceModel::DeviceModel(TimePoint opened, std::size_t blockSize, double rate, WaveSource wave_)
    : openedAt(opened), pacer(rate), wave(wave_), lastBlock(blockSize) {}

TimePoint DeviceModel::NextDue() const {
    return answers.empty() ? pacer.Due() : std::min(answers.front().due, pacer.Due());
}

std::span<const std::uint8_t> DeviceModel::Next(TimePoint now) {
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

void DeviceModel::ChangeBlocks(std::size_t blockSize, double rate, TimePoint now) {
    lastBlock.resize(blockSize);
    pacer.ChangeRate(rate, now);
}

void DeviceModel::Pass(std::vector<std::uint8_t> block, TimePoint now) {
    Answer(std::move(block), now);
}

void DeviceModel::Answer(std::vector<std::uint8_t> bytes, TimePoint due) {
    if (!answers.empty()) due = std::max(due, answers.back().due);
    answers.push_back({due, std::move(bytes)});
}

void DeviceModel::FinishAnswer(std::span<std::uint8_t> /*answer*/, TimePoint /*now*/) {}

StreamSensor::StreamSensor(const DeviceSettings& settings, TimePoint opened, std::uint32_t seed)
    : DeviceModel(opened, settings.blockSize, settings.rate, WaveOf(settings, seed)),
      echo(settings.echo) {
    StartBlocks(opened);
}

void StreamSensor::Receive(std::span<const std::uint8_t> bytes, TimePoint now) {
    if (echo && !bytes.empty()) Answer({bytes.begin(), bytes.end()}, now);
}

void StreamSensor::MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) {
    FillSamplePacket(block, counter++, milliseconds, Wave());
    SealPacket(block);
}

HidSensor::HidSensor(const DeviceSettings& settings, TimePoint opened, std::uint32_t seed)
    : DeviceModel(opened, kHidReportSize, settings.rate, WaveOf(settings, seed)),
      type(static_cast<std::uint8_t>(settings.type)),
      echo(settings.echo) {
    StartBlocks(opened);
}

void HidSensor::Receive(std::span<const std::uint8_t> bytes, TimePoint now) {
    if (bytes.empty()) return;
    std::vector<std::uint8_t> report(kHidReportSize);
    std::ranges::copy(bytes.first(std::min(bytes.size(), report.size())), report.begin());
    if ((report[0] & kReportKindMask) == kInitRequest) {
        report[0] = kInitAnswer;
        report[kReportTypeOffset] = type;
    } else if (!echo) {
        return;
    }
    Answer(std::move(report), now);
}

void HidSensor::MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) {
    block[0] = static_cast<std::uint8_t>(counter++ & ~kReportKindMask);
    block[kReportTypeOffset] = type;
    Wave().Fill(block.subspan(kReportSampleOffset, kReportTimeOffset - kReportSampleOffset));
    StoreLe32(block, kReportTimeOffset, milliseconds);
}

void SourcedDevice::Receive(std::span<const std::uint8_t> bytes, TimePoint /*now*/) {
    write(bytes);
}

DaqBoard::DaqBoard(const DaqSettings& settings_, TimePoint opened)
    : DeviceModel(opened, settings_.measurementSize, RateOf(settings_),
                  WaveSource(Waveform::kSine, Random(kDefaultSeed, settings_.name))),
      settings(settings_) {}

void DaqBoard::Receive(std::span<const std::uint8_t> bytes, TimePoint now) {
    if (bytes.size() <= kCommandOffset || TypeClass(bytes[kTypeOffset]) != kClassCommand) {
        return;
    }
    if (IsInitialSync(bytes)) {
        if (settings.answersSync) AnswerSync(bytes[kSequenceOffset], now);
    } else if (settings.acknowledges) {
        Acknowledge(bytes, now);
    }
}

void DaqBoard::Pass(std::vector<std::uint8_t> block, TimePoint now) {
    if (synced) Answer(std::move(block), now);
}

void DaqBoard::Change(const DaqSettings& changed, TimePoint now) {
    settings = changed;
    ChangeBlocks(settings.measurementSize, RateOf(settings), now);
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
    // Numbered when it is sent, not when it was requested: measurements may be sent in between.
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
