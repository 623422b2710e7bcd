// The unit's side of the link for tests: packets and frames, and a service that answers as told.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/Bytes.h"
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

class FakeService {
  public:
    // Called on the service's thread with each packet of the host.
    using Handler = std::function<void(FakeService&, const Bytes& packet)>;

    // A service at one end of a connection; the other end is TakeTransport's.
    explicit FakeService(Handler handler);

    // A service that takes hosts at the socket `path`, one after the other.
    FakeService(const std::string& path, Handler handler);

    ~FakeService();
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

    std::unique_ptr<Transport> TakeTransport();

    void SendBytes(const Bytes& bytes);
    void SendFramed(const Bytes& packets) { SendBytes(Frame(packets)); }

    // Ends the connection.
    void HangUp();

    // Answers an initial sync and the controller's commands with their acknowledgements.
    static void Obey(FakeService& service, const Bytes& packet);

  private:
    void Serve();

    Handler handler;
    int listener = -1;
    std::atomic<int> connection{-1};
    int hostEnd = -1;
    std::uint8_t controllerSequence = 0;  // the thread's own
    std::thread thread;
};

}  // namespace vexahost
