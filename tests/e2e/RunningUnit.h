// The service on a virtual unit, as a process of its own, and the host at the end of its cable.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "support/HostPackets.h"
#include "testkit/ChildProcess.h"
#include "vexahost/FrameReader.h"
#include "vexahost/PacketReader.h"

namespace vexa::test {

using Lines = std::vector<std::string>;

inline constexpr testkit::Milliseconds kPatience{20000};

// Devices that send nothing by themselves but echo.
inline constexpr char kQuietUnit[] = R"({
  "devices": [{"name": "Stream", "type": 8, "rate": 0}, {"name": "Hid", "type": 2, "rate": 0},
              {"name": "Camera", "type": 7}],
  "daq": {"name": "Board", "measurementRate": 0, "syncDelayMs": 0}})";

// The path of one of our programs.
inline std::string Program(const std::string& name) { return PROGRAM_DIR "/" + name; }

// Runs from construction on; Stop or the destructor ends it.
class RunningUnit {
  public:
    // `scenario` is the text of a scenario file, "{}" for the built-in one; `program` stands in for
    // the service. Returns when a host can connect, or the unit has ended already.
    explicit RunningUnit(const std::string& scenario, const Lines& program = {});
    ~RunningUnit();
    RunningUnit(const RunningUnit&) = delete;
    RunningUnit& operator=(const RunningUnit&) = delete;

    // Waits until the service has printed a line that ends in `end`, after position `from` of its
    // output. Returns the position after the line; fails the test after 20 s.
    std::size_t AwaitLine(const std::string& end, std::size_t from = 0);

    // What the service has printed so far, without what vexa-unit says itself.
    Lines Printed();
    std::size_t PrintedSize() { return process->Log().Text().size(); }

    // The lines of the call log so far that begin with `start`.
    [[nodiscard]] Lines Calls(const std::string& start = "") const;

    // Waits for the end by itself or, with Stop, after SIGTERM; the exit status, 128 + n after a
    // signal.
    int Wait();
    int Stop();

    // The service's process; -1 when there is none.
    [[nodiscard]] pid_t ServiceId() const;
    // Sends the service a signal; the test fails when there is none to send it to.
    void Signal(int number) const;
    // Threads and descriptors of the service.
    [[nodiscard]] std::pair<std::size_t, std::size_t> ThreadsAndDescriptors() const;

    [[nodiscard]] const std::string& Folder() const { return folder; }
    [[nodiscard]] std::string SocketPath() const { return folder + "/host.sock"; }

  private:
    std::string folder;
    std::optional<testkit::ChildProcess> process;
};

// The host's end of the cable, or of another link.
class Host {
  public:
    // Connects, and waits until the service has seen the cable.
    explicit Host(RunningUnit& unit);
    // On a link that is there, without frame headers.
    explicit Host(testkit::Descriptor link) : descriptor(std::move(link)), framed(false) {}

    void Send(const Bytes& bytes) const;

    // The next packet in hex; "timeout" when none comes within 10 s.
    std::string Receive();
    // Sends and receives.
    std::string Ask(const Bytes& bytes);
    // Receives until a packet contains `wanted`.
    void Await(const std::string& wanted);
    // Waits until so much is unread that no more fits.
    void AwaitFullWindow() const;

  private:
    bool Fill(int milliseconds);

    testkit::Descriptor descriptor;
    bool framed = true;
    vexahost::FrameReader frames;
    vexahost::PacketReader packets;
    Bytes received;
    std::span<const std::uint8_t> left;  // of what was received, not looked at yet
    std::span<const std::uint8_t> payload;
};

}  // namespace vexa::test
