// WAV files: one for each channel, at an integer rate. What is missing becomes silence.
//
//   0 "RIFF", size, "WAVE"   12 "fmt ", 16, kind (1 PCM, 3 float), channels, rate, bytes a second,
//   bytes a sample, bits     36 "data", size, samples
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <utility>

#include "tool/stream/StreamSink.h"

namespace vexahost::tool {

namespace {

constexpr std::size_t kHeaderSize = 44;
constexpr double kMostSilence = 3600;  // seconds; a longer gap is the step of a clock
constexpr std::uint64_t kMostBytes = 0xFFFFFFFF - kHeaderSize;

// One file. Nothing is written any more after a fault.
class WavFile {
  public:
    // Whole numbers of 16 bits stand as they are, others as 32-bit floats.
    WavFile(const std::string& path_, bool isWhole_)
        : path(path_), isWhole(isWhole_), file(std::fopen(path.c_str(), "w+be")) {
        if (file) {
            for (std::size_t i = 0; i < kHeaderSize; ++i) std::putc(0, file.get());
        } else {
            NoteFault();
        }
    }

    void Add(double value) {
        if (!fault.empty()) return;
        if (bytes + SampleSize() > kMostBytes) {
            fault = path + ": a WAV file holds no more than 4 GiB";
            return;
        }
        if (isWhole) {
            PutNumber(static_cast<std::uint32_t>(static_cast<std::int32_t>(value)), 2);
        } else {
            const auto number = static_cast<float>(value);
            std::uint32_t bits = 0;
            std::memcpy(&bits, &number, sizeof bits);
            PutNumber(bits, 4);
        }
        bytes += SampleSize();
    }

    // Also after a fault, so that what the file holds can be read.
    void Finish(std::uint32_t rate) {
        if (!file) return;
        if (std::fflush(file.get()) != 0) NoteFault();
        struct stat status {};
        if (fstat(fileno(file.get()), &status) != 0) return NoteFault();
        const auto whole = static_cast<std::uint64_t>(status.st_size);
        const auto size = static_cast<std::uint32_t>(
            std::min(bytes, whole > kHeaderSize ? whole - kHeaderSize : 0));
        std::string header = "RIFF";
        const auto append = [&](std::size_t value, std::size_t count) {
            for (std::size_t i = 0; i < count; ++i) header += static_cast<char>(value >> 8 * i);
        };
        append(size + kHeaderSize - 8, 4);
        header += "WAVEfmt ";
        append(16, 4);
        append(isWhole ? 1 : 3, 2);
        append(1, 2);
        append(rate, 4);
        append(rate * SampleSize(), 4);
        append(SampleSize(), 2);
        append(8 * SampleSize(), 2);
        header += "data";
        append(size, 4);
        const auto count = static_cast<ssize_t>(header.size());
        if (pwrite(fileno(file.get()), header.data(), header.size(), 0) != count) NoteFault();
    }

    [[nodiscard]] const std::string& Path() const { return path; }
    [[nodiscard]] const std::string& Fault() const { return fault; }

  private:
    struct Closer {
        void operator()(std::FILE* open) const { std::fclose(open); }
    };

    [[nodiscard]] std::size_t SampleSize() const { return isWhole ? 2 : 4; }

    void PutNumber(std::uint32_t value, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            if (std::putc(static_cast<int>(value >> 8 * i & 0xFFU), file.get()) == EOF) NoteFault();
        }
    }
    void NoteFault() {
        if (fault.empty()) fault = "cannot write " + path + ": " + std::strerror(errno);
    }

    const std::string path;
    const bool isWhole;
    std::string fault;
    std::uint64_t bytes = 0;  // of samples
    std::unique_ptr<std::FILE, Closer> file;
};

class WavSink final : public StreamSink {
  public:
    WavSink(std::string folder_, RateOf rateOf_)
        : folder(std::move(folder_)), rateOf(std::move(rateOf_)) {
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error) fault = "cannot make " + folder + ": " + error.message();
    }

    void Add(const StreamedBlock& from) override {
        if (from.samples == nullptr || !fault.empty()) return;
        auto& device = devices[from.device];
        if (device.files.empty()) Open(device, from);
        const SampleBlock& samples = *from.samples;
        FillGap(device, samples);
        for (std::size_t channel = 0; channel < device.files.size(); ++channel) {
            for (const double value : samples.values[channel]) device.files[channel].Add(value);
        }
        device.samples += samples.Count();
        device.next = samples.TimeOf(samples.Count());
        device.step = samples.times.step;
    }

    Expected<Done> Update() override {
        for (const auto& [index, device] : devices) {
            for (const WavFile& file : device.files) {
                if (fault.empty()) fault = file.Fault();
            }
        }
        if (fault.empty()) return Done{};
        return Error{ErrorKind::kInvalidArgument, fault};
    }

    void Finish() override {
        for (auto& [index, device] : devices) {
            const auto measured = rateOf(index);
            const auto rate =
                static_cast<std::uint32_t>(std::max(std::lround(measured.value_or(1)), 1L));
            char known[40] = "(rate unknown)";
            if (measured) std::snprintf(known, sizeof known, "(measured %.3f)", *measured);
            for (WavFile& file : device.files) {
                file.Finish(rate);
                std::fprintf(stderr,
                             "%s: %u samples/s %s, %llu samples, %llu gaps filled "
                             "with %llu samples of silence\n",
                             file.Path().c_str(), rate, known,
                             static_cast<unsigned long long>(device.samples),
                             static_cast<unsigned long long>(device.gaps),
                             static_cast<unsigned long long>(device.silence));
            }
            if (device.longGaps == 0) continue;
            std::fprintf(stderr, "vexa-host: %llu gaps of more than an hour are not filled: %s\n",
                         static_cast<unsigned long long>(device.longGaps),
                         device.files.front().Path().c_str());
        }
    }

  private:
    struct Device {
        std::vector<WavFile> files;  // of the channels
        std::optional<double> next;  // when the next sample is due
        double step = 0;
        std::uint64_t samples = 0;
        std::uint64_t gaps = 0;
        std::uint64_t longGaps = 0;  // not among them
        std::uint64_t silence = 0;
    };

    void Open(Device& device, const StreamedBlock& from) {
        for (const ChannelFormat& channel : from.format->channels) {
            std::string name = from.label;
            if (from.format->channels.size() > 1 || channel.name != "value") {
                name += "." + channel.name;
            }
            const bool isWhole = channel.type.kind == SampleType::Kind::kSigned &&
                                 channel.type.size == 2 && channel.IsPlain();
            device.files.emplace_back(folder + "/" + names.Take(name) + ".wav", isWhole);
        }
    }

    // What is shorter than half a block may be the clocks.
    static void FillGap(Device& device, const SampleBlock& samples) {
        if (!device.next || device.step <= 0) return;
        const double seconds = samples.times.first - *device.next;
        if (seconds > kMostSilence) {
            ++device.longGaps;
            return;
        }
        const double missing = seconds / device.step;
        if (missing < std::max(static_cast<double>(samples.Count()) / 2, 1.0)) return;
        const auto count = static_cast<std::uint64_t>(std::llround(missing));
        for (WavFile& file : device.files) {
            for (std::uint64_t i = 0; i < count && file.Fault().empty(); ++i) file.Add(0);
        }
        ++device.gaps;
        device.silence += count;
        device.samples += count;
    }

    const std::string folder;
    const RateOf rateOf;
    FileNames names;
    std::map<std::size_t, Device> devices;
    std::string fault;
};

}  // namespace

std::unique_ptr<StreamSink> MakeWavSink(const std::string& folder, RateOf rateOf) {
    return std::make_unique<WavSink>(folder, std::move(rateOf));
}

}  // namespace vexahost::tool
