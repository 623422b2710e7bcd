// The unit's side of the link for tests: packets and frames, and a service that answers as told.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/Bytes.h"
#include "testkit/ChildProcess.h"
#include "testkit/Descriptor.h"
#include "vexahost/Transport.h"

namespace vexahost {

using vexa::test::Bytes;
using vexa::test::Hex;
using vexa::test::Sealed;
using vexa::test::ToHex;
using vexa::test::operator+;

Bytes Part(const Bytes& bytes, std::size_t from, std::size_t to);

// `payload` behind a frame header.
Bytes Frame(const Bytes& payload);

// A tunnel packet of a child.
Bytes ChildBlock(std::uint32_t child, std::uint8_t sequence, const Bytes& data);

Bytes SyncReply(std::uint8_t sequence, std::uint8_t requestSequence);

// A reply of the controller: `type` 0x98 or 0x9C.
Bytes ControllerReply(std::uint32_t controller, std::uint8_t sequence, std::uint8_t type,
                      std::uint8_t command, std::uint8_t requestSequence, std::uint8_t code);

// A service for hosts at a socket, one after the other, that answers as a test tells it to.
class FakeService {
  public:
    // Called on the service's thread with each packet of the host.
    using Handler = std::function<void(FakeService&, const Bytes& packet)>;

    explicit FakeService(Handler handler, std::string path = OwnPath());
    ~FakeService();
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

    [[nodiscard]] std::unique_ptr<Transport> Connect() const;

    void SendBytes(const Bytes& bytes);
    void SendFramed(const Bytes& packets) { SendBytes(Frame(packets)); }

    // Ends the connection.
    void HangUp();

    // Answers an initial sync and the controller's commands with their acknowledgements.
    static void Obey(FakeService& service, const Bytes& packet);

    // Handlers that obey, but answer `command`, of the controller or the multiplexer, themselves.
    static Handler On(std::uint8_t command, Handler answer);
    static Handler Refuse(std::uint8_t command, std::uint8_t code);

  private:
    static std::string OwnPath();
    void Serve();

    const Handler handler;
    const std::string path;
    vexa::testkit::Descriptor listener;
    std::atomic<int> connection{-1};
    std::uint8_t controllerSequence = 0;  // the thread's own
    std::thread thread;
};

// vexa-host as a program, with a folder of its own for the unit's socket.
class ToolTest : public testing::Test {
  protected:
    ToolTest();
    ~ToolTest() override;

    [[nodiscard]] std::string Socket() const { return folder + "/host.sock"; }

    // Runs a shell command line in which $HOST is vexa-host and $VEXA_UNIT_DIR is `folder`.
    [[nodiscard]] vexa::testkit::Finished Run(const std::string& commandLine) const;

    std::string folder;
};

}  // namespace vexahost
