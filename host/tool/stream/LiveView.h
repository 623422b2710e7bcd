// The stream on a terminal: figures and a graph for each channel, drawn ten times a second.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tool/Console.h"
#include "tool/stream/Envelope.h"
#include "tool/stream/FullScreen.h"
#include "tool/stream/StreamSink.h"
#include "vexahost/Block.h"

namespace vexahost::tool {

// Figures and a graph for each channel. One thread at a time.
class LiveView final : public StreamSink {
  public:
    // Returns the statistics of the device with that index.
    using Losses = std::function<ChildStatistics(std::size_t device)>;

    // `where` names the unit; `names` are the devices, in the order of their indices.
    LiveView(std::string where, const std::vector<std::string>& names, Losses losses);

    void Add(const StreamedBlock& block) override;
    Expected<Done> Update() override;
    [[nodiscard]] bool WantsEnd() override;

  private:
    using Clock = std::chrono::steady_clock;

    struct ChannelRow {
        std::string name;
        std::uint64_t samples = 0;    // since the last rates
        double samplesPerSecond = 0;  // the last rate
        double last = 0;
        Envelope envelope;
    };
    struct DeviceRows {
        std::string name;
        std::uint64_t blocks = 0;    // since the last rates
        double blocksPerSecond = 0;  // the last rate
        std::string bytes;           // the last block, when it held no samples
        std::vector<ChannelRow> channels;
    };

    void AddChannel(DeviceRows& device, const ChannelFormat& channel,
                    const std::vector<double>& values);
    void UpdateRates(Clock::time_point now);
    void Draw(Clock::time_point now);
    void OnKey(char key);
    [[nodiscard]] std::string Title(Clock::time_point now) const;
    // What stands below title and heading; any number of lines.
    [[nodiscard]] std::vector<std::string> Lines(Clock::time_point now) const;
    [[nodiscard]] std::size_t GraphColumns() const;
    [[nodiscard]] std::string DeviceText(const DeviceRows& device, std::size_t index) const;
    [[nodiscard]] std::vector<std::string> ChannelLines(const ChannelRow& channel,
                                                        Clock::time_point now) const;
    // No longer than the terminal is wide.
    [[nodiscard]] std::string Fit(const std::string& text) const;

    Console console;
    const std::string where;
    const Losses losses;
    std::vector<DeviceRows> devices;
    const Clock::time_point start = Clock::now();
    Clock::time_point ratesAt = start;
    Clock::time_point drawnAt{};
    std::optional<Clock::time_point> pausedAt;  // the graphs stand still since then
    bool quit = false;
    std::size_t scrolled = 0;   // lines above the first one that is shown
    std::size_t graphRows = 1;  // text rows of a graph
    FullScreen screen;          // last: the terminal is restored before anything else goes
};

}  // namespace vexahost::tool
