// The stream on a terminal: figures and a graph for each channel, drawn ten times a second.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "../Console.h"
#include "FullScreen.h"
#include "StreamSink.h"
#include "vexahost/Block.h"

class LiveView final : public StreamSink {
  public:
    /// Gives gaps and drops of the device with that index.
    using Losses = std::function<vexahost::ChildStatistics(std::size_t device)>;

    /// `where` says which unit; `names` are the devices' in the order of their indices.
    LiveView(std::string where, const std::vector<std::string>& names, Losses losses);

    void Take(const StreamedBlock& block) override;
    void Update() override;
    [[nodiscard]] bool WantsEnd() override { return screen.IsQuitTyped(); }

  private:
    using Clock = std::chrono::steady_clock;

    struct ChannelRow {
        std::string name;
        std::uint64_t samples = 0;    // since the last figures
        double samplesPerSecond = 0;  // the last figures
        double lowest = 0;            // of all
        double highest = 0;           // of all
        std::deque<double> graph;     // newest samples, never empty
    };
    struct DeviceRows {
        std::string name;
        std::uint64_t blocks = 0;    // since the last figures
        double blocksPerSecond = 0;  // the last figures
        std::string bytes;           // the last block, when it held no samples
        std::vector<ChannelRow> channels;
    };

    void AddChannel(DeviceRows& device, const Channel& channel);
    void TakeFigures(Clock::time_point now);
    void Draw(Clock::time_point now);
    [[nodiscard]] std::string Title(Clock::time_point now) const;
    [[nodiscard]] std::vector<std::string> Lines(Clock::time_point now) const;
    [[nodiscard]] std::string DeviceText(const DeviceRows& device, std::size_t index) const;
    [[nodiscard]] std::string ChannelText(const ChannelRow& channel, bool withExtremes) const;
    // No longer than the terminal is wide.
    [[nodiscard]] std::string Fit(const std::string& text) const;

    Console console;
    const std::string where;
    const Losses losses;
    std::vector<DeviceRows> devices;
    const Clock::time_point start = Clock::now();
    Clock::time_point figuresAt = start;
    Clock::time_point drawnAt{};
    FullScreen screen;  // last, so that the terminal is set right before all else
};
