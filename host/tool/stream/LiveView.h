// The stream on a terminal: figures and a graph for each channel, drawn ten times a second.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tool/Console.h"
#include "tool/stream/StreamSink.h"
#include "vexahost/Block.h"

namespace vexahost::tool {

// Uses the whole terminal as a page. Standard output must be a terminal, and there is at most one
// object at a time. The destructor restores the terminal, and so do a second Ctrl-C, and Ctrl-Z
// while the program is stopped.
class FullScreen {
  public:
    FullScreen();
    ~FullScreen();
    FullScreen(const FullScreen&) = delete;
    FullScreen& operator=(const FullScreen&) = delete;

    // Lines of the terminal at the moment.
    [[nodiscard]] std::size_t Height() const;

    // Shows `lines`, none wider than the terminal and no more than its height, and clears the rest.
    void Draw(const std::vector<std::string>& lines);

    // True once "q" has been typed.
    [[nodiscard]] bool IsQuitTyped();

    // Stops the program if Ctrl-Z was typed, and returns true when it is continued.
    bool StopIfAsked();

  private:
    static void Enter();
    static void Leave();

    bool quit = false;
};

// Figures and a graph for each channel. One thread at a time.
class LiveView final : public StreamSink {
  public:
    // Returns the statistics of the device with that index.
    using Losses = std::function<ChildStatistics(std::size_t device)>;

    // `where` names the unit; `names` are the devices, in the order of their indices.
    LiveView(std::string where, const std::vector<std::string>& names, Losses losses);

    void Add(const StreamedBlock& block) override;
    void Update() override;
    [[nodiscard]] bool WantsEnd() override { return screen.IsQuitTyped(); }

  private:
    using Clock = std::chrono::steady_clock;

    struct ChannelRow {
        std::string name;
        std::uint64_t samples = 0;    // since the last rates
        double samplesPerSecond = 0;  // the last rate
        double lowest = 0;            // of all
        double highest = 0;           // of all
        std::deque<double> graph;     // newest samples, never empty
    };
    struct DeviceRows {
        std::string name;
        std::uint64_t blocks = 0;    // since the last rates
        double blocksPerSecond = 0;  // the last rate
        std::string bytes;           // the last block, when it held no samples
        std::vector<ChannelRow> channels;
    };

    void AddChannel(DeviceRows& device, const Channel& channel);
    void UpdateRates(Clock::time_point now);
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
    Clock::time_point ratesAt = start;
    Clock::time_point drawnAt{};
    FullScreen screen;  // last: the terminal is restored before anything else goes
};

}  // namespace vexahost::tool
