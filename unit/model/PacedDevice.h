// What all devices share: answers in the order of the requests, and between them blocks of samples
// at a steady rate.
#pragma once

#include <deque>
#include <vector>

#include "model/DeviceModel.h"
#include "model/Pacer.h"
#include "model/WaveSource.h"

namespace vexa::unit {

class PacedDevice : public DeviceModel {
  public:
    [[nodiscard]] TimePoint NextDue() const override;
    [[nodiscard]] std::span<const std::uint8_t> Next(TimePoint now) override;

  protected:
    // Opened at `opened`; sends blocks of `blockSize` bytes `rate` times a second once
    // StartBlocks() has been called.
    PacedDevice(TimePoint opened, std::size_t blockSize, double rate, Waveform waveform);

    void StartBlocks(TimePoint now) { pacer.Start(now); }

    // Goes on with blocks of another size or at another rate.
    void ChangeBlocks(std::size_t blockSize, double rate, TimePoint now);

    // Queues an answer, due at `due` or after the answers before it.
    void Answer(std::vector<std::uint8_t> bytes, TimePoint due);

    // Fills in the next block. `milliseconds` have passed since the stream was opened.
    virtual void MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) = 0;

    // An answer is about to be sent.
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

// Fills `block`, of at least kMinBlockSize bytes, with a packet of samples without its checksum:
//
//   0      1        2         3          4 .. 7         8 ..
//  +------+--------+---------+----------+--------------+---------------------------+
//  | 0xA0 | length | counter | checksum | milliseconds | samples, 16-bit, signed   |
//  +------+--------+---------+----------+--------------+---------------------------+
//
// A block that is longer than a packet can be says 255.
void FillSamplePacket(std::span<std::uint8_t> block, std::uint8_t counter,
                      std::uint32_t milliseconds, WaveSource& wave);

}  // namespace vexa::unit
