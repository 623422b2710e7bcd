// The devices of a stream: opened, read and counted.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "../Connection.h"

struct StreamedDevices {
    std::vector<std::string> names;  // of the sensors
    std::vector<std::string> arm;    // those of them that are to be sent the init request
    bool daq = false;                // the DAQ as well, by the name "DAQ"

    [[nodiscard]] bool Contains(const std::string& name) const;
};

class StreamSource {
  public:
    /// `client` has the controller open.
    StreamSource(vexahost::Client& client, const StreamedDevices& devices);

    /// Opens all, or gives the first error.
    vexahost::Expected<vexahost::Done> Open();

    /// Names of the devices; their indices here are those of all functions.
    [[nodiscard]] const std::vector<std::string>& Names() const { return names; }

    using TakeBlock = std::function<void(std::size_t device, const vexahost::Block& block)>;

    /// Calls `take` with each block that has come, after a wait of up to 20 ms for one. The error
    /// that the link has ended with.
    vexahost::Expected<vexahost::Done> TakeAll(const TakeBlock& take);

    [[nodiscard]] vexahost::ChildStatistics StatisticsOf(std::size_t device) const;

    /// The totals of each on standard error, with a hint for one that stayed silent.
    void PrintTotals(std::chrono::steady_clock::duration time) const;

  private:
    vexahost::Expected<vexahost::Block> Receive(std::size_t device, vexahost::Milliseconds wait);
    vexahost::Expected<vexahost::Done> TakeAllOf(std::size_t device, vexahost::Milliseconds wait,
                                                 const TakeBlock& take);

    vexahost::Client& client;
    const StreamedDevices& devices;
    std::vector<std::string> names;
    vexahost::ChildStatistics daqCounts;  // what the client does not count
    std::uint64_t daqWrongChecksums = 0;
};
