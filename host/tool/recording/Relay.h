// Stands between a host program and its unit, and records what passes.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "capture/PcapngWriter.h"
#include "vexahost/Client.h"

class Relay {
  public:
    /// Hosts get what `connect` connects to.
    Relay(vexahost::TransportFactory connect, vexahost::PcapngWriter writer);
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    /// Makes a host socket in `directory`, in place of one that nobody listens on any more.
    vexahost::Expected<vexahost::Done> Listen(const std::string& directory);

    /// Takes hosts, one at a time, and for each connects to the unit, until `isOver` says so and
    /// nothing more comes from the host. A unit that cannot be reached is said on standard error
    /// and its host sent away. kInvalidArgument when the recording cannot be written any more.
    vexahost::Expected<vexahost::Done> Serve(const std::function<bool()>& isOver);

    [[nodiscard]] std::uint64_t FrameCount() const { return frameCount; }

  private:
    void ServeHost(int host, const std::function<bool()>& isOver);
    // From the unit to the host, on a thread of its own, until either link has ended.
    void Forward(vexahost::Transport& unit, int host);
    // From the host to the unit, until either link has ended or all is over.
    void TakeFromHost(vexahost::Transport& unit, int host, const std::function<bool()>& isOver);
    void Record(vexahost::Direction direction, std::span<const std::uint8_t> bytes,
                const char* event = "");
    [[nodiscard]] bool HasFailed();

    const vexahost::TransportFactory connect;
    std::string socketPath;
    int listener = -1;

    std::mutex mutex;  // guards writer, frameCount and failure
    vexahost::PcapngWriter writer;
    std::uint64_t frameCount = 0;
    std::optional<vexahost::Error> failure;  // of the recording
};
