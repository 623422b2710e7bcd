// What the modelled devices do over time, without threads or a clock of their own: they are told
// what was written to them and when, and say what they send and when that is due.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <vector>

#include "model/Random.h"
#include "model/Runtime.h"
#include "model/Scenario.h"

namespace vexa::unit {

inline constexpr int kWavePeriod = 100;           // samples
inline constexpr std::int16_t kWavePeak = 10000;  // largest magnitude of every waveform

// Produces the samples of a waveform. One thread at a time.
class WaveSource {
  public:
    // `noise_` is used for noise alone.
    WaveSource(Waveform waveform_, Random noise_) : waveform(waveform_), noise(noise_) {}

    [[nodiscard]] std::int16_t NextSample();

    // Fills `bytes` with samples, 16-bit little-endian; an odd last byte becomes 0.
    void Fill(std::span<std::uint8_t> bytes);

  private:
    const Waveform waveform;
    Random noise;
    int phase = 0;  // 0 to kWavePeriod - 1
};

// Fills `block`, of at least kMinBlockSize bytes, with a packet of samples, leaving out the
// checksum:
//
//   0      1        2         3          4 .. 7         8 ..
//  +------+--------+---------+----------+--------------+---------------------------+
//  | 0xA0 | length | counter | checksum | milliseconds | samples, 16-bit, signed   |
//  +------+--------+---------+----------+--------------+---------------------------+
//
// The length byte of a block longer than 255 bytes is 255.
void FillSamplePacket(std::span<std::uint8_t> block, std::uint8_t counter,
                      std::uint32_t milliseconds, WaveSource& wave);

// Computes when a device's next block is due: block n is due n/rate seconds after the start, so
// that lateness never accumulates. One thread at a time.
class Pacer {
  public:
    // `rate`: blocks per second; with 0 nothing is ever due.
    explicit Pacer(double rate_) : rate(rate_) {}

    // The first block is due 1/rate seconds after `now`.
    void Start(TimePoint now);

    // Continues at another rate, counting from `now`. Does nothing else before Start().
    void ChangeRate(double rate_, TimePoint now);

    // When the next block is due; kNever before Start().
    [[nodiscard]] TimePoint Due() const;

    // Marks the due block as sent. A backlog of more than a second is dropped, so that a receiver
    // that stalled is not flooded afterwards.
    void Advance(TimePoint now);

  private:
    double rate;
    TimePoint start = kNever;
    std::uint64_t sent = 0;  // blocks since start
};

// A device: answers in the order of the requests, and between them blocks at a steady rate. Only
// the thread of its stream uses it.
class DeviceModel {
  public:
    DeviceModel(const DeviceModel&) = delete;
    DeviceModel& operator=(const DeviceModel&) = delete;
    virtual ~DeviceModel() = default;

    // Handles `bytes`, which arrived in one write.
    virtual void Receive(std::span<const std::uint8_t> bytes, TimePoint now) = 0;

    // Handles a block that came from the device's source: by default it is sent as it is.
    virtual void Pass(std::vector<std::uint8_t> block, TimePoint now);

    // When the device sends next; kNever when nothing is due unless more is written.
    [[nodiscard]] TimePoint NextDue() const;

    // The block that is due, or, when nothing is due yet, the next block of samples. Valid until
    // the next call.
    [[nodiscard]] std::span<const std::uint8_t> Next(TimePoint now);

  protected:
    // Opened at `opened`; sends blocks of `blockSize` bytes `rate` times a second once
    // StartBlocks() has been called.
    DeviceModel(TimePoint opened, std::size_t blockSize, double rate, WaveSource wave);

    void StartBlocks(TimePoint now) { pacer.Start(now); }

    // Continues with blocks of another size or at another rate.
    void ChangeBlocks(std::size_t blockSize, double rate, TimePoint now);

    // Queues an answer, due at `due` or after the answers before it.
    void Answer(std::vector<std::uint8_t> bytes, TimePoint due);

    // Fills the next block. `milliseconds` have passed since the stream was opened.
    virtual void MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) = 0;

    // Completes an answer that is about to be sent.
    virtual void FinishAnswer(std::span<std::uint8_t> answer, TimePoint now);

    [[nodiscard]] WaveSource& Wave() { return wave; }

  private:
    struct PendingAnswer {
        TimePoint due;
        std::vector<std::uint8_t> bytes;
    };

    const TimePoint openedAt;
    Pacer pacer;
    WaveSource wave;
    std::deque<PendingAnswer> answers;
    std::vector<std::uint8_t> lastAnswer;
    std::vector<std::uint8_t> lastBlock;
};

// A byte-stream sensor: sends packets of samples and echoes each write.
class StreamSensor : public DeviceModel {
  public:
    // `seed` is for the waveform noise.
    StreamSensor(const DeviceSettings& settings, TimePoint opened,
                 std::uint32_t seed = kDefaultSeed);

    void Receive(std::span<const std::uint8_t> bytes, TimePoint now) override;

  private:
    void MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) override;

    const bool echo;
    std::uint8_t counter = 0;
};

// A HID sensor: sends reports of 8 bytes.
//
//   0                  1      2 .. 3           4 .. 7
//  +------------------+------+----------------+--------------+
//  | counter, 6 bits  | type | sample, signed | milliseconds |   little-endian
//  +------------------+------+----------------+--------------+
//
// A write whose first byte has the top bits 01 is the init request. It is answered by the only
// report with the top bits 10, which repeats bytes 2 to 7 of the request after the type.
class HidSensor : public DeviceModel {
  public:
    // `seed` is for the waveform noise.
    HidSensor(const DeviceSettings& settings, TimePoint opened, std::uint32_t seed = kDefaultSeed);

    void Receive(std::span<const std::uint8_t> bytes, TimePoint now) override;

  private:
    void MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) override;

    const std::uint8_t type;
    const bool echo;
    std::uint8_t counter = 0;
};

// A device with a source: what comes from there is sent, what is written goes there.
class SourcedDevice : public DeviceModel {
  public:
    // `write` takes what is written; it does not wait.
    SourcedDevice(std::function<void(std::span<const std::uint8_t>)> write_, TimePoint opened)
        : DeviceModel(opened, 0, 0, WaveSource(Waveform::kSine, Random(kDefaultSeed, ""))),
          write(std::move(write_)) {}

    void Receive(std::span<const std::uint8_t> bytes, TimePoint now) override;

  private:
    void MakeBlock(std::span<std::uint8_t> /*block*/, std::uint32_t /*milliseconds*/) override {}

    const std::function<void(std::span<const std::uint8_t>)> write;
};

// The acquisition board: answers the initial sync, acknowledges commands, and sends measurements
// once it is synced. Everything that it sends shares one sequence counter.
class DaqBoard : public DeviceModel {
  public:
    DaqBoard(const DaqSettings& settings, TimePoint opened);

    void Receive(std::span<const std::uint8_t> bytes, TimePoint now) override;

    // A block of samples from the board's source is a measurement.
    void Pass(std::vector<std::uint8_t> block, TimePoint now) override;

    // Applies new settings; the measurement interval starts again.
    void Change(const DaqSettings& changed, TimePoint now);

  private:
    void AnswerSync(std::uint8_t requestSequence, TimePoint now);
    void Acknowledge(std::span<const std::uint8_t> request, TimePoint now);
    void MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) override;
    void FinishAnswer(std::span<std::uint8_t> answer, TimePoint now) override;

    DaqSettings settings;
    bool synced = false;
    std::uint8_t sequence = 0;
    std::uint64_t measurements = 0;
};

}  // namespace vexa::unit
