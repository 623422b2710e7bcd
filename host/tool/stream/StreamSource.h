// Where the blocks of a stream come from: the devices of a unit.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tool/Connection.h"
#include "vexahost/Block.h"
#include "vexahost/Client.h"

namespace vexahost::tool {

// One block, and which device it is of.
struct SourceBlock {
    std::size_t device;  // index among the source's devices
    std::optional<ChildId> child;
    double seconds;  // from the start of the stream to its arrival
    Block block;
    std::optional<double> opened = {};  // the device's first block since it was opened anew: then
};

// Devices whose blocks come one by one. One thread at a time.
class StreamSource {
  public:
    virtual ~StreamSource() = default;

    // Names of the devices; a device's index here stands for it in all functions.
    [[nodiscard]] virtual const std::vector<std::string>& Names() const = 0;

    // The same; with the child's id where two devices share a name.
    [[nodiscard]] virtual const std::vector<std::string>& Labels() const = 0;

    // When the device was asked to open the last time, in seconds from the start of the stream; it
    // may be before that.
    [[nodiscard]] virtual double OpenedAt(std::size_t device) const = 0;

    // Zero of all times, since 1970-01-01 00:00 UTC.
    [[nodiscard]] virtual std::chrono::nanoseconds Start() const = 0;

    // Waits for the oldest block of all devices. kTimeout when none came; nothing when no block
    // comes any more.
    virtual Expected<std::optional<SourceBlock>> Receive(Milliseconds wait) = 0;

    [[nodiscard]] virtual ChildStatistics StatisticsOf(std::size_t device) const = 0;

    // Says on standard error which devices have sent nothing so far, and why that may be.
    virtual void PrintSilent() const {}

    // Prints totals of each device on standard error.
    virtual void PrintTotals() const = 0;
};

struct StreamedDevices {
    std::vector<std::string> names;  // of the sensors
    std::vector<std::string> arm;    // those of them that get the init request
    bool daq = false;                // also the DAQ, under the name "DAQ"

    [[nodiscard]] bool Contains(const std::string& name) const;
};

inline constexpr const char* kDaqName = "DAQ";

// Devices of a unit: opened, read and counted.
class UnitSource final : public StreamSource {
  public:
    UnitSource(const UnitAddress& unit, const StreamedDevices& devices);

    // Opens the controller and all devices. The error of the first that fails.
    Expected<Done> Open(Client& connected);

    // Connects again after a lost link, with as many attempts as come before `end` or an interrupt,
    // and opens all again. `idle` is called between the attempts and ends them with false.
    Expected<Done> Reopen(std::chrono::steady_clock::time_point end,
                          const std::function<bool()>& idle);

    const std::vector<std::string>& Names() const override { return names; }
    const std::vector<std::string>& Labels() const override { return labels; }
    double OpenedAt(std::size_t device) const override { return opened[device]; }
    std::chrono::nanoseconds Start() const override { return startTime; }
    Expected<std::optional<SourceBlock>> Receive(Milliseconds wait) override;
    ChildStatistics StatisticsOf(std::size_t device) const override;
    void PrintSilent() const override;
    void PrintTotals() const override;

    // Seconds from the start of the stream.
    [[nodiscard]] double Now() const;

  private:
    using Clock = std::chrono::steady_clock;

    void WarnOfSharedTypes() const;
    Expected<Done> OpenAll();
    [[nodiscard]] ChildStatistics OfConnection(std::size_t device) const;
    [[nodiscard]] double SecondsOf(Clock::time_point time) const;

    const UnitAddress& unit;
    const StreamedDevices& devices;
    Client* client = nullptr;
    bool isAway = false;  // the link is lost: `former` has what the client still counts
    std::vector<std::string> names;
    std::vector<std::string> labels;
    std::vector<ChildId> ids;             // of the sensors
    std::vector<double> opened;           // of all devices
    std::vector<ChildStatistics> former;  // of the connections before this one
    Clock::time_point start;
    std::chrono::nanoseconds startTime{};
};

}  // namespace vexahost::tool
