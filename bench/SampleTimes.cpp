// vexa-times: how far the times of samples are from the truth. Runs a virtual unit with one sensor
// of 1,600 samples a second, whose sample n (from 1) is at n/1600 s from its opening. The opening
// is told by the unit's events. On a busy machine they come late; then no block can have been sent
// before it was finished, so that the one with the least delay tells better. The sensor's waveform,
// a ramp of 100 samples, shows that no sample is missing or taken for another.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "testkit/ChildProcess.h"
#include "testkit/Wait.h"
#include "vexahost/Client.h"
#include "vexahost/Samples.h"
#include "vexahost/SocketTransport.h"

namespace {

using namespace vexahost;
using Clock = std::chrono::steady_clock;

constexpr double kRate = 1600;
constexpr const char* kScenario =
    R"({"devices": [{"name": "Microphone", "type": 11, "blockSize": 72, "rate": 50, "waveform": "ramp"}]})";
constexpr std::chrono::seconds kPatience{20};

[[noreturn]] void Fail(const std::string& what) {
    std::fprintf(stderr, "vexa-times: %s\n", what.c_str());
    std::exit(1);
}

template <typename T>
T Must(Expected<T> result) {
    if (!result) Fail(result.error().message);
    return std::move(*result);
}

// When the service opened the sensor: the unit tells its listeners once the call has returned.
class OpeningWatch {
  public:
    explicit OpeningWatch(const std::string& control)
        : link(Must(SocketTransport::ConnectUnit(control))) {
        const std::string request = "{\"request\": \"events\"}\n";
        static_cast<void>(Must(
            link->WriteAll({reinterpret_cast<const std::uint8_t*>(request.data()), request.size()},
                           DeadlineAfter(kPatience))));
        Must(ReadUntil("\"ok\":true"));
        thread = std::thread([this] {
            if (ReadUntil("VEXA_Device_Stream_Open")) openedAt = Clock::now();
            isOver = true;
        });
    }
    ~OpeningWatch() {
        link->Close();
        thread.join();
    }

    Clock::time_point Opened() {
        const bool told = vexa::testkit::WaitUntil(kPatience, [&] { return isOver.load(); });
        link->Close();
        if (!told || openedAt == Clock::time_point{}) Fail("the unit did not tell of the opening");
        return openedAt;
    }

  private:
    Expected<Done> ReadUntil(const std::string& text) {
        std::array<std::uint8_t, 4096> buffer;
        while (seen.find(text) == std::string::npos) {
            const auto count = link->Read(buffer, kPatience);
            if (!count) return count.error();
            seen.append(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(*count));
        }
        return Done{};
    }

    std::unique_ptr<Transport> link;
    std::string seen;
    std::atomic<bool> isOver{false};
    Clock::time_point openedAt{};  // written before isOver is set
    std::thread thread;
};

// Errors of times, in milliseconds. `shift` is added to each.
void Print(const char* what, const std::vector<float>& errors, double shift, double seconds) {
    const auto n = static_cast<double>(errors.size());
    double sum = 0, most = 0, sumT = 0, sumTT = 0, sumE = 0, sumTE = 0;
    for (std::size_t i = 0; i < errors.size(); ++i) {
        const double t = static_cast<double>(i) / kRate;
        const double error = errors[i] + shift;
        sum += std::fabs(error);
        most = std::max(most, std::fabs(error));
        sumT += t;
        sumTT += t * t;
        sumE += error;
        sumTE += t * error;
    }
    const double slope = (n * sumTE - sumT * sumE) / (n * sumTT - sumT * sumT);
    std::printf("%-22s %12.3f %12.3f %12.3f %16.3f\n", what, sum / n, sumE / n, most,
                slope * seconds);
}

std::shared_ptr<const DeviceFormats> Formats(bool withTime) {
    DeviceFormats formats;
    DeviceFormat format = *DeviceFormats::BuiltIn().Find("Microphone");
    if (!withTime) format.time.reset();
    formats.Set("Microphone", format);
    return std::make_shared<const DeviceFormats>(std::move(formats));
}

void Run(Client& client, OpeningWatch& watch, double seconds) {
    constexpr ChildId kSensor = 0x1001;
    const auto start = Clock::now();
    const auto since = [start](Clock::time_point time) {
        return std::chrono::duration<double>(time - start).count();
    };
    static_cast<void>(Must(client.OpenDevice("Microphone", kSensor)));
    const double opened = since(watch.Opened());
    SampleReader byDevice("Microphone", Formats(true), 0);
    SampleReader byArrival("Microphone", Formats(false), 0);
    std::vector<float> errors[2];
    double least = 1e9;  // delay of a block, if the sensor was opened when the unit told so
    double number = 0;
    std::deque<double> behind;  // the unit's own clock, less the time that its samples take
    double slip = 0;
    for (double at = 0; at < seconds;) {
        const Block block = Must(client.Receive(kSensor, kPatience));
        at = since(block.receivedAt);
        const SampleBlock* const blocks[] = {byDevice.Read(block.bytes, block.sequence, at),
                                             byArrival.Read(block.bytes, block.sequence, at)};
        const auto& values = blocks[0]->values[0];
        for (std::size_t i = 0; i < values.size(); ++i) {
            if (values[i] != std::fmod(number, 100) * 200 - 10000) Fail("a sample is missing");
            ++number;
            const double truth = opened + number / kRate;
            for (int k = 0; k < 2; ++k) {
                errors[k].push_back(static_cast<float>((blocks[k]->TimeOf(i) - truth) * 1000));
            }
        }
        // A unit that was not run for a second gives its schedule up.
        const double late = *blocks[0]->deviceSeconds - number / kRate;
        behind.push_back(late);
        if (behind.size() > 50) behind.pop_front();
        slip = behind.size() < 50 ? 0 : std::max(slip, *std::ranges::min_element(behind));
        least = std::min(least, at - (opened + number / kRate));
    }
    // Both tell no moment before the opening: the earlier one is nearer to it.
    const double early = std::min(least, 0.0);
    std::printf(
        "%.0f samples in %.0f s; opened %.2f ms after it was asked to (told at %.2f ms, "
        "block with the least delay %.2f ms); errors in ms:\n\n",
        number, seconds, (opened + early) * 1000, opened * 1000, (opened + least) * 1000);
    std::printf("%-22s %12s %12s %12s %16s\n", "times", "mean |error|", "mean error", "most",
                "drift in the run");
    Print("of the device", errors[0], -early * 1000, seconds);
    Print("of arrival", errors[1], -early * 1000, seconds);
    if (slip > 0.005) {
        std::printf("\nThe unit itself fell %.0f ms behind: the machine is too busy for this.\n",
                    slip * 1000);
    }
    std::printf("\nrate: %.4f by the device's clock, %.4f by arrival\n", *byDevice.Rate(),
                *byArrival.Rate());
}

void Compare(double seconds) {
    const auto programs = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    std::string folder = std::filesystem::temp_directory_path() / "vexa-times-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) Fail("cannot make " + folder);
    std::ofstream(folder + "/scenario.json") << kScenario;
    vexa::testkit::ProcessCall call;
    call.command = {programs / "vexa-unit",    "run",   "--scenario",
                    folder + "/scenario.json", "--dir", folder + "/unit"};
    vexa::testkit::ChildProcess unit(call);
    const std::string control = folder + "/unit/control.sock";
    if (!vexa::testkit::WaitUntil(kPatience, [&] { return std::filesystem::exists(control); })) {
        Fail("the unit did not start: " + unit.Log().Text());
    }
    {
        const auto client = Must(Client::Connect(
            [&](const ConnectLimits& limits) {
                return SocketTransport::ConnectUnit(folder + "/unit", limits);
            },
            {}, kPatience));
        static_cast<void>(Must(client->OpenController(1, false)));
        OpeningWatch watch(control);
        Run(*client, watch, seconds);
    }
    unit.Stop(kPatience);
    std::filesystem::remove_all(folder);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        double seconds = 60;
        CLI::App parser("Compares the times of samples with the truth", "vexa-times");
        parser.add_option("--seconds", seconds, "how long (60)")->check(CLI::Range(1, 86400));
        CLI11_PARSE(parser, argc, argv);
        Compare(seconds);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vexa-times: %s\n", error.what());
        return 1;
    }
}
