// vexa-make-recording FILE [SECONDS]: a recording of nine sensors that nearly fill the link, as
// long as is wanted and at once: three of each kind, 130 blocks of 245 bytes a second each, which
// the unit sends every 30 ms. For measuring what turns recordings into samples.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "vexahost/Recording.h"
#include "vexahost/Requests.h"
#include "vexahost/protocol/FrameHeader.h"

namespace {

using namespace vexahost;
using Bytes = std::vector<std::uint8_t>;

constexpr int kSensors = 9;
constexpr double kBlocksPerSecond = 130;
constexpr std::size_t kBlockSize = 245;
constexpr std::size_t kSamplesAt = 8;
constexpr std::chrono::milliseconds kBurst{30};
constexpr std::chrono::seconds kStart{1'790'000'000};

class Recorder {
  public:
    explicit Recorder(PcapngWriter writer_) : writer(std::move(writer_)) {}

    void Add(std::chrono::nanoseconds at, Direction direction, const Bytes& bytes,
             const char* event = "") {
        const auto added = writer.Add({kStart + at, direction, bytes, event});
        if (added) return;
        std::fprintf(stderr, "vexa-make-recording: %s\n", added.error().message.c_str());
        std::exit(1);
    }

    // What the unit sends, in frames of a few packets.
    void AddFrame(std::chrono::nanoseconds at, const Bytes& packets) {
        Bytes frame(vexa::kFrameHeaderSize);
        vexa::BuildFrameHeader(std::span(frame).first<vexa::kFrameHeaderSize>(),
                               static_cast<std::uint32_t>(packets.size()));
        frame.insert(frame.end(), packets.begin(), packets.end());
        Add(at, Direction::kFromUnit, frame);
    }

  private:
    PcapngWriter writer;
};

Bytes BlockOf(int sensor, std::uint32_t number, std::chrono::milliseconds time) {
    Bytes block(kBlockSize);
    block[vexa::kTypeOffset] = vexa::kClassDaq;
    block[vexa::kLengthOffset] = kBlockSize;
    block[vexa::kSequenceOffset] = static_cast<std::uint8_t>(number);
    vexa::StoreLe32(std::span(block).subspan<vexa::kPayloadOffset, 4>(),
                    static_cast<std::uint32_t>(time.count()));
    const std::size_t samples = (kBlockSize - kSamplesAt) / 2;
    for (std::size_t i = 0; i < samples; ++i) {
        const double phase = static_cast<double>(number * samples + i) * 0.01 * (sensor + 1);
        const auto value = static_cast<std::int16_t>(std::lround(10000 * std::sin(phase)));
        block[kSamplesAt + 2 * i] = static_cast<std::uint8_t>(value);
        block[kSamplesAt + 2 * i + 1] = static_cast<std::uint8_t>(value >> 8);
    }
    vexa::SealPacket(block);
    return block;
}

Bytes Copy(const Packet& packet) { return {packet.Bytes().begin(), packet.Bytes().end()}; }

}  // namespace

int Make(int argc, char** argv) {
    const double seconds = argc > 2 ? std::atof(argv[2]) : 600;
    auto writer = PcapngWriter::Create(argc > 1 ? argv[1] : "");
    if (!writer || !(seconds > 0)) {
        std::fprintf(stderr, "usage: vexa-make-recording FILE [SECONDS]\n");
        return 2;
    }
    Recorder recorder(std::move(*writer));
    recorder.Add({}, Direction::kToUnit, {}, kCableIn);
    recorder.Add({}, Direction::kToUnit, Copy(BuildInitialSync(1)));
    using vexa::ControllerCommand;
    recorder.Add({}, Direction::kToUnit,
                 Copy(BuildControllerCommand(1, 2, ControllerCommand::kReopenController,
                                             ReopenArguments(1, false))));
    constexpr const char* kNames[] = {"Accelerometer", "Spectrometer", "Microphone"};
    for (int sensor = 0; sensor < kSensors; ++sensor) {
        const auto child = static_cast<ChildId>(0x1001 + sensor);
        recorder.Add({}, Direction::kToUnit,
                     Copy(BuildControllerCommand(1, 3, ControllerCommand::kOpenChild,
                                                 OpenArguments(child, kNames[sensor % 3]))));
    }
    std::uint32_t sent = 0;
    for (std::chrono::milliseconds now = kBurst; now < std::chrono::duration<double>(seconds);
         now += kBurst) {
        const std::chrono::duration<double> passed = now;
        for (; (sent + 1) / kBlocksPerSecond <= passed.count(); ++sent) {
            const std::chrono::duration<double, std::milli> at((sent + 1) * 1000 /
                                                               kBlocksPerSecond);
            Bytes packets;
            for (int sensor = 0; sensor < kSensors; ++sensor) {
                const auto block =
                    BlockOf(sensor, sent, std::chrono::floor<std::chrono::milliseconds>(at));
                const auto child = static_cast<ChildId>(0x1001 + sensor);
                const Bytes packet =
                    Copy(*BuildTunnel(child, static_cast<std::uint8_t>(sent), block));
                packets.insert(packets.end(), packet.begin(), packet.end());
            }
            recorder.AddFrame(now, packets);
        }
    }
    recorder.Add(std::chrono::duration_cast<std::chrono::nanoseconds>(
                     std::chrono::duration<double>(seconds)),
                 Direction::kToUnit, {}, kCableOut);
    return 0;
}

int main(int argc, char** argv) {
    try {
        return Make(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vexa-make-recording: %s\n", error.what());
        return 1;
    }
}
