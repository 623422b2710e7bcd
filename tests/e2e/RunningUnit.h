// The service on a virtual unit, as a process of its own, and the host at the end of its cable.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/HostPackets.h"
#include "vexahost/FrameReader.h"
#include "vexahost/PacketReader.h"

namespace vexa::test {

using Lines = std::vector<std::string>;

// Runs from construction on; Stop or the destructor ends it.
class RunningUnit {
  public:
    // `scenario` is the text of a scenario file, "{}" for the built-in one; `program` stands in for
    // the service. Returns when a host can connect, or the unit has ended already.
    explicit RunningUnit(const std::string& scenario, const Lines& program = {});
    ~RunningUnit();
    RunningUnit(const RunningUnit&) = delete;
    RunningUnit& operator=(const RunningUnit&) = delete;

    // Waits until the service has printed a line that ends in `end`, counted from line `from` on.
    // Returns the number of the line behind it; fails the test after 20 s.
    std::size_t AwaitLine(const std::string& end, std::size_t from = 0);

    // What the service has printed so far.
    Lines Printed();

    // What the libraries have been called with so far, as the unit's journal tells it.
    [[nodiscard]] Lines Journal() const;

    // Waits for the end by itself or, with Stop, after SIGTERM; the exit status, 128 + n after a
    // signal.
    int Wait();
    int Stop();

    // Threads and descriptors of the service.
    [[nodiscard]] std::pair<std::size_t, std::size_t> ThreadsAndDescriptors() const;

    [[nodiscard]] std::string SocketPath() const { return folder + "/host.sock"; }

  private:
    void ReadOutput(int descriptor);

    std::string folder;
    pid_t process = -1;
    std::thread reader;
    std::mutex mutex;  // guards output and ended
    std::condition_variable changed;
    std::string output;
    bool ended = false;
};

// The host's end of the cable.
class Host {
  public:
    // Connects, and waits until the service has seen the cable.
    explicit Host(RunningUnit& unit);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    void Send(const Bytes& bytes) const;

    // The next packet in hex; "timeout" when none comes within 10 s.
    std::string Receive();
    // Sends and receives.
    std::string Ask(const Bytes& bytes);
    // Waits until so much has come unread that no more fits.
    void AwaitFullWindow() const;

  private:
    bool Fill(int milliseconds);

    int descriptor = -1;
    vexahost::FrameReader frames;
    vexahost::PacketReader packets;
    Bytes received;                      // with the frame headers
    std::span<const std::uint8_t> left;  // of them, not looked at yet
    std::span<const std::uint8_t> payload;
};

}  // namespace vexa::test
