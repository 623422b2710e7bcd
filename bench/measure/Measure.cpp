// Measures the service as a whole process: its own binary, started anew for each figure, with a
// host at its link and sensors that cost next to nothing.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "CLI/CLI.hpp"
#include "Sensors.h"
#include "ServiceProcess.h"
#include "nlohmann/json.hpp"
#include "protocol/Packet.h"
#include "vexahost/Packet.h"

namespace {

using namespace vexa::measure;
using namespace std::chrono_literals;
using Seconds = std::chrono::duration<double>;
using Clock = std::chrono::steady_clock;

constexpr vexahost::ChildId kController = 1;
constexpr vexahost::ChildId kChild = 2;
constexpr std::size_t kBlock = 17;
constexpr std::size_t kPacket = kBlock + vexa::kTunnelHeaderSize;
// What the service's writer takes at most from its output buffer, and how often.
constexpr double kOutputCeiling = 10000 / 0.030;
// What goes to the unit at once, and how often: its input buffer takes 10000 bytes while the main
// loop pauses for 10 ms, which leaves the loop 4 ms to be late.
constexpr std::size_t kBurstPackets = 50;
constexpr auto kBurstPeriod = 2ms;

struct Settings {
    std::string program;
    std::string libraries;
    std::string floor;
    std::string json;
    double seconds = 10;
};

// A line of the table and an entry of the JSON file for each figure.
class Figures {
  public:
    void Add(const std::string& name, double value, const std::string& unit, int decimals = 0) {
        std::printf("%-58s %12.*f %s\n", name.c_str(), decimals, value, unit.c_str());
        std::fflush(stdout);
        json.push_back({{"name", name}, {"value", value}, {"unit", unit}});
    }
    [[nodiscard]] const nlohmann::json& Json() const { return json; }

  private:
    nlohmann::json json = nlohmann::json::array();
};

template <typename T>
T Need(const std::string& what, vexahost::Expected<T> result) {
    if (!result) Fail(what + ": " + result.error().message);
    return std::move(*result);
}

std::string Processor() {
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
    }
    return "unknown";
}

// A service with one child open.
class Session {
  public:
    Session(const Settings& settings, const std::string& device)
        : service(settings.program, settings.libraries) {
        Need("initial sync", Host().InitialSync());
        Need("controller", Host().OpenController(kController, false));
        Need("device", Host().OpenDevice(device, kChild));
    }
    vexahost::Client& Host() { return service.Host(); }

    // Sends `count` packets of kPacket bytes, in bursts of at most kBurstPackets.
    void SendPackets(std::size_t count, vexahost::ChildId child = kChild,
                     std::size_t perBurst = kBurstPackets) {
        vexahost::Packet packet(vexa::kTypeTunnel, kPacket, 0);
        vexa::BuildTunnelHeader(packet.Bytes(), child, 0, kBlock);
        packet.Seal();
        std::vector<std::uint8_t> burst;
        for (std::size_t i = 0; i < kBurstPackets; ++i) {
            burst.insert(burst.end(), packet.Bytes().begin(), packet.Bytes().end());
        }
        auto due = Clock::now();
        for (std::size_t sent = 0; sent < count; sent += perBurst, due += kBurstPeriod) {
            std::this_thread::sleep_until(due);
            const auto now = std::min(perBurst, count - sent) * kPacket;
            Need("sending", Host().SendRaw(std::span(burst).first(now)));
        }
    }

    void SetSource(std::uint32_t size, std::uint32_t rate) {
        std::array<std::uint8_t, 8> order{};
        vexa::StoreLe32(order, 0, size);
        vexa::StoreLe32(order, 4, rate);
        Need("source", Host().Send(kChild, order));
    }

    ServiceProcess service;
};

double Nanoseconds(std::chrono::nanoseconds time) { return static_cast<double>(time.count()); }

void MeasureStart(const Settings& settings, Figures& figures) {
    std::vector<double> times;
    for (int i = 0; i < 5; ++i) {
        ServiceProcess service(settings.program, settings.libraries);
        Need("initial sync", service.Host().InitialSync());
        times.push_back(Seconds(service.Age()).count() * 1000);
    }
    std::ranges::sort(times);
    figures.Add("start to answered initial sync, median of 5", times[2], "ms", 1);
}

void MeasureIdle(const Settings& settings, Figures& figures) {
    Session session(settings, "sink");
    std::this_thread::sleep_for(1s);
    const CpuTime before = session.service.Cpu();
    const auto start = Clock::now();
    std::this_thread::sleep_for(Seconds(settings.seconds));
    const Seconds elapsed = Clock::now() - start;
    const Seconds used = session.service.Cpu().service - before.service;
    figures.Add("idle with a host connected, of one core", used / elapsed * 100, "%", 2);
}

void MeasureToUnit(const Settings& settings, Figures& figures) {
    Session session(settings, "sink");
    const auto packets =
        static_cast<std::size_t>(settings.seconds * (1s / kBurstPeriod)) * kBurstPackets;
    session.SendPackets(kBurstPackets);
    std::this_thread::sleep_for(100ms);
    const CpuTime before = session.service.Cpu();
    const auto start = Clock::now();
    session.SendPackets(packets);
    const Seconds elapsed = Clock::now() - start;
    std::this_thread::sleep_for(100ms);
    const auto used = session.service.Cpu().service - before.service;
    Need("count", session.Host().Send(kChild, std::array<std::uint8_t, 1>{}));
    const auto counted = Need("count", session.Host().Receive(kChild, 1000ms));
    const double sent = static_cast<double>(packets);
    const double lost = sent + kBurstPackets - vexa::LoadLe32(counted.bytes, 0);
    figures.Add("host to unit, 25-byte tunnel packets: rate", sent * kPacket / elapsed.count(),
                "bytes/s");
    figures.Add("  packets lost", lost, "");
    figures.Add("  CPU per packet", Nanoseconds(used) / sent, "ns");
    figures.Add("  resident memory afterwards", static_cast<double>(session.service.ResidentKiB()),
                "KiB");
}

// `share` of what the writer can send at most.
void MeasureFromUnit(const Settings& settings, Figures& figures, const std::string& name,
                     double share) {
    Session session(settings, "source");
    const auto rate = static_cast<std::uint32_t>(kOutputCeiling * share / kPacket);
    const auto statistics = [&] { return *session.Host().StatisticsOf(kChild); };
    session.SetSource(kBlock, rate);
    std::this_thread::sleep_for(500ms);
    const CpuTime before = session.service.Cpu();
    const auto received = statistics();
    const auto start = Clock::now();
    std::this_thread::sleep_for(Seconds(settings.seconds));
    const auto now = statistics();
    const Seconds elapsed = Clock::now() - start;
    const CpuTime after = session.service.Cpu();
    const double packets = static_cast<double>(now.blocks - received.blocks);
    const double bytes = packets * kPacket / elapsed.count();
    figures.Add("unit to host, 17-byte blocks, " + name + ": rate", bytes, "bytes/s");
    figures.Add("  of 10,000 bytes per 30 ms", bytes / kOutputCeiling * 100, "%", 1);
    figures.Add("  gaps in the sequence numbers",
                static_cast<double>(now.sequenceGaps - received.sequenceGaps), "");
    figures.Add(
        "  CPU per packet, the library's thread included",
        Nanoseconds(after.service + after.source - before.service - before.source) / packets, "ns");
    figures.Add("  CPU per packet, main loop and writer alone",
                Nanoseconds(after.service - before.service) / packets, "ns");
}

void MeasureRoundTrips(const Settings& settings, Figures& figures) {
    Session session(settings, "echo");
    std::vector<double> times;
    const std::array<std::uint8_t, kBlock> block{};
    const auto end = Clock::now() + Seconds(settings.seconds);
    for (int i = 0; Clock::now() < end; ++i) {
        const auto start = Clock::now();
        Need("echo", session.Host().Send(kChild, block));
        Need("echo", session.Host().Receive(kChild, 1000ms));
        times.push_back(Seconds(Clock::now() - start).count() * 1000);
        // The next one meets the loops at another moment of theirs.
        std::this_thread::sleep_for(std::chrono::milliseconds(i * 7 % 31));
    }
    std::ranges::sort(times);
    const auto at = [&](double share) {
        return times[static_cast<std::size_t>(share * static_cast<double>(times.size() - 1))];
    };
    figures.Add("round trip to an echoing sensor: shortest", at(0), "ms", 1);
    for (const auto& [name, share] :
         {std::pair("  median", 0.5), std::pair("  9 in 10 within", 0.9),
          std::pair("  99 in 100 within", 0.99)}) {
        figures.Add(name, at(share), "ms", 1);
    }
    figures.Add("  longest", at(1), "ms", 1);
    figures.Add("  round trips", static_cast<double>(times.size()), "");
}

// Sends `seconds` of bursts to the unit, as fast as SendPackets does, and reads what comes.
void LoadLink(int link, double seconds) {
    const std::vector<std::uint8_t> burst(kBurstPackets * kPacket);
    std::vector<std::uint8_t> received(65536);
    auto due = Clock::now();
    for (const auto end = due + Seconds(seconds); due < end; due += kBurstPeriod) {
        std::this_thread::sleep_until(due);
        if (::send(link, burst.data(), burst.size(), MSG_NOSIGNAL) < 0) Fail("the link has ended");
        while (::recv(link, received.data(), received.size(), MSG_DONTWAIT) > 0) continue;
    }
}

// 25,000 packets a second each way through the service, and the same bytes through a program that
// only reads, sleeps and writes; both without the library's own thread.
void MeasureAgainstFloor(const Settings& settings, Figures& figures) {
    constexpr std::uint32_t kSmallBlock = 5;
    constexpr std::uint32_t kRate = 25000;
    const auto cpuOf = [&](const ServiceProcess& process, auto load) {
        const CpuTime before = process.Cpu();
        load();
        const CpuTime after = process.Cpu();
        const auto share = [&](auto part) {
            return Seconds(part).count() / settings.seconds * 100;
        };
        return std::pair(share(after.service - before.service),
                         share(after.mainLoop - before.mainLoop));
    };
    const auto bursts = static_cast<std::size_t>(settings.seconds * (1s / kBurstPeriod));
    std::pair<double, double> service;
    std::pair<double, double> tenth;
    {
        Session session(settings, "source");
        Need("sink", session.Host().OpenDevice("sink", kChild + 1));
        session.SetSource(kSmallBlock, kRate);
        std::this_thread::sleep_for(500ms);
        const auto load = [&](std::size_t perBurst) {
            return cpuOf(session.service,
                         [&] { session.SendPackets(bursts * perBurst, kChild + 1, perBurst); });
        };
        const auto received = session.Host().StatisticsOf(kChild)->blocks;
        service = load(kBurstPackets);
        figures.Add("25,000 packets a second each way: packets that reached the host",
                    static_cast<double>(session.Host().StatisticsOf(kChild)->blocks - received),
                    "");
        tenth = load(kBurstPackets / 10);
    }
    const auto bytes =
        static_cast<std::size_t>(kRate * (kSmallBlock + vexa::kTunnelHeaderSize) * 0.030);
    const ServiceProcess floor(settings.floor, settings.libraries, std::to_string(bytes));
    LoadLink(floor.Link(), 0.5);
    const auto least = cpuOf(floor, [&] { LoadLink(floor.Link(), settings.seconds); });
    figures.Add("  CPU of the service, of one core", service.first, "%", 2);
    figures.Add("    its main loop", service.second, "%", 2);
    figures.Add("    its main loop with a tenth of the packets to the unit", tenth.second, "%", 2);
    figures.Add("  CPU of the same reads, sleeps and writes alone", least.first, "%", 2);
    figures.Add("    its main loop", least.second, "%", 2);
    figures.Add("  the service as a multiple of it", service.first / least.first, "", 2);
}

void MeasureSize(const Settings& settings, Figures& figures) {
    namespace fs = std::filesystem;
    const fs::path stripped = settings.libraries + "/VEXADevMgr.stripped";
    const std::string command = "strip -o '" + stripped.string() + "' '" + settings.program + "'";
    if (std::system(command.c_str()) != 0) Fail("cannot strip a copy of the service");
    figures.Add("size of the binary, stripped", static_cast<double>(fs::file_size(stripped)) / 1024,
                "KiB");
    fs::remove(stripped);
}

void MeasureAll(const Settings& settings) {
    std::printf("%s, %u cores\n\n", Processor().c_str(), std::thread::hardware_concurrency());
    Figures figures;
    MeasureSize(settings, figures);
    MeasureStart(settings, figures);
    MeasureIdle(settings, figures);
    MeasureToUnit(settings, figures);
    MeasureFromUnit(settings, figures, "nearly full", 0.97);
    MeasureFromUnit(settings, figures, "too many", 1.2);
    MeasureAgainstFloor(settings, figures);
    MeasureRoundTrips(settings, figures);
    if (settings.json.empty()) return;
    std::ofstream file(settings.json);
    file << nlohmann::json{{"processor", Processor()}, {"figures", figures.Json()}}.dump(2) << '\n';
    if (!file.flush()) Fail("cannot write " + settings.json);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const auto here = std::filesystem::read_symlink("/proc/self/exe").parent_path();
        Settings settings{here / "VEXADevMgr", here.parent_path() / "lib/measured",
                          here / "vexa-floor", "", 10};
        CLI::App app("Measures the service as a whole process");
        app.add_option("--program", settings.program, "The service's binary")
            ->check(CLI::ExistingFile);
        app.add_option("--json", settings.json, "Write the figures to this file as well");
        app.add_option("--seconds", settings.seconds, "How long each figure is measured")
            ->check(CLI::Range(1, 3600));
        CLI11_PARSE(app, argc, argv);
        MeasureAll(settings);
        return 0;
    } catch (const std::exception& error) {
        Fail(error.what());
    }
}
