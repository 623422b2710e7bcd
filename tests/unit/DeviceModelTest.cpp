// What the modelled devices send, and when. Time is a number here.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "model/Devices.h"
#include "protocol/InitialSync.h"
#include "protocol/Packet.h"

namespace vexa::unit {
namespace {

using std::chrono::milliseconds;
using Bytes = std::vector<std::uint8_t>;

const TimePoint kStart = TimePoint{} + std::chrono::hours(1);

// Lets `device` run up to `now`; what it sent, in order.
std::vector<Bytes> SentUntil(DeviceModel& device, TimePoint now) {
    std::vector<Bytes> sent;
    while (device.NextDue() <= now) {
        const auto block = device.Next(std::max(device.NextDue(), kStart));
        sent.emplace_back(block.begin(), block.end());
    }
    return sent;
}

bool ChecksumIsRight(const Bytes& packet) {
    const unsigned all = std::accumulate(packet.begin(), packet.end(), 0U);
    return static_cast<std::uint8_t>(all - packet[3]) == packet[3];
}

TEST(StreamSensor, SendsSealedPacketsAtItsRate) {
    StreamSensor sensor({.name = "Ramp", .blockSize = 13, .rate = 4, .waveform = Waveform::kRamp},
                        kStart);
    const auto sent = SentUntil(sensor, kStart + milliseconds(1000));
    ASSERT_EQ(sent.size(), 4U);
    for (std::size_t index = 0; index < sent.size(); ++index) {
        EXPECT_EQ(Bytes(sent[index].begin(), sent[index].begin() + 3),
                  (Bytes{0xA0, 13, static_cast<std::uint8_t>(index)}));
        EXPECT_TRUE(ChecksumIsRight(sent[index]));
        EXPECT_EQ(LoadLe32(sent[index], 4), 250 * (index + 1));
    }
    // -10000, -9800 and half a sample; then -9600.
    EXPECT_EQ(Bytes(sent[0].begin() + 8, sent[0].end()), (Bytes{0xF0, 0xD8, 0xB8, 0xD9, 0}));
    EXPECT_EQ(Bytes(sent[1].begin() + 8, sent[1].begin() + 10), (Bytes{0x80, 0xDA}));
}

TEST(StreamSensor, EchoesEachWriteInOneBlockUnlessToldNotTo) {
    StreamSensor echoing({.name = "Echo", .rate = 0}, kStart);
    StreamSensor mute({.name = "Mute", .rate = 0, .echo = false}, kStart);
    for (StreamSensor* sensor : {&echoing, &mute}) {
        sensor->Receive(Bytes{1, 2, 3}, kStart);
        sensor->Receive(Bytes{}, kStart);
        sensor->Receive(Bytes(300, 7), kStart);
    }
    EXPECT_EQ(SentUntil(echoing, kStart), (std::vector<Bytes>{{1, 2, 3}, Bytes(300, 7)}));
    EXPECT_EQ(mute.NextDue(), kNever);
}

TEST(Pacer, NeitherDriftsNorCatchesUpOnMoreThanASecond) {
    Pacer pacer(3);
    pacer.Start(kStart);
    // Each block is made 100 ms late, and yet the thousandth is due when it should be.
    for (int made = 0; made < 999; ++made) pacer.Advance(pacer.Due() + milliseconds(100));
    const auto due = std::chrono::duration_cast<milliseconds>(pacer.Due() - kStart);
    EXPECT_NEAR(static_cast<double>(due.count()), 333333, 1);

    const TimePoint afterStall = kStart + std::chrono::hours(2);
    int overdue = 0;
    for (; pacer.Due() <= afterStall; ++overdue) pacer.Advance(afterStall);
    EXPECT_EQ(overdue, 1 + 3);  // the one that was waiting, and a second's worth
}

TEST(HidSensor, ReportsAnswersInitAndEchoes) {
    HidSensor sensor({.name = "Hid", .type = 3, .rate = 100, .waveform = Waveform::kSquare},
                     kStart);
    sensor.Receive(Bytes{0x55, 9, 21, 22, 23, 24, 25, 26, 27}, kStart);  // init, one byte too many
    sensor.Receive(Bytes{0x95, 1, 2}, kStart);
    const auto sent = SentUntil(sensor, kStart + milliseconds(650));
    ASSERT_EQ(sent.size(), 2U + 65U);
    EXPECT_EQ(sent[0], (Bytes{0x80, 3, 21, 22, 23, 24, 25, 26}));
    EXPECT_EQ(sent[1], (Bytes{0x95, 1, 2, 0, 0, 0, 0, 0}));
    EXPECT_EQ(sent[2], (Bytes{0, 3, 0x10, 0x27, 10, 0, 0, 0}));
    EXPECT_EQ(sent[66][0], 0) << "the top bits are not the counter's";
}

TEST(DaqBoard, MeasuresOnlyOnceItHasAnsweredTheSync) {
    DaqBoard board({.syncDelayMs = 20, .measurementRate = 50, .checksumErrorEvery = 3}, kStart);
    Bytes request(kInitialSyncSize);
    BuildInitialSync(std::span<std::uint8_t, kInitialSyncSize>(request), 77);
    board.Receive(Bytes{0x60, 5, 1, 0, 2}, kStart);  // not of the command class
    board.Receive(request, kStart);
    board.Receive(Bytes{0x41, 6, 9, 0, 0x33, 1}, kStart);  // a command, while it synchronises
    EXPECT_EQ(board.NextDue(), kStart + milliseconds(20));
    const auto sent = SentUntil(board, kStart + milliseconds(20 + 120));
    ASSERT_EQ(sent.size(), 2U + 6U);

    EXPECT_EQ(sent[0].size(), kInitialSyncReplySize);
    EXPECT_EQ(sent[0][5], 77);
    EXPECT_TRUE(ChecksumIsRight(sent[0]));
    EXPECT_EQ(sent[1],
              (Bytes{0xB8, 7, 1, static_cast<std::uint8_t>(0xB8 + 7 + 1 + 0x33 + 9), 0x33, 9, 0}));
    for (std::size_t index = 2; index < sent.size(); ++index) {
        EXPECT_EQ(sent[index].size(), 24U);
        EXPECT_EQ(sent[index][2], index) << "one sequence for all that it sends";
        EXPECT_EQ(ChecksumIsRight(sent[index]), index != 4 && index != 7) << index;
    }
}

TEST(DaqBoard, TakesNoDamagedSync) {
    Bytes request(kInitialSyncSize);
    BuildInitialSync(std::span<std::uint8_t, kInitialSyncSize>(request), 77);
    request.back() ^= 1;
    DaqBoard board({.acknowledges = false}, kStart);
    board.Receive(request, kStart);
    EXPECT_EQ(board.NextDue(), kNever);
}

}  // namespace
}  // namespace vexa::unit
