// The unit's side of the link for tests: packets and frames, and a service that answers as told.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "support/HostPackets.h"
#include "testkit/Descriptor.h"
#include "vexahost/PacketReader.h"

namespace vexahost {

using vexa::test::Bytes;
using vexa::test::Hex;
using vexa::test::Sealed;
using vexa::test::ToHex;
using vexa::test::Tunnel;
using vexa::test::operator+;

inline Bytes Part(const Bytes& bytes, std::size_t from, std::size_t to) {
    return {bytes.begin() + static_cast<long>(from), bytes.begin() + static_cast<long>(to)};
}

// `payload` after a frame header.
inline Bytes Frame(const Bytes& payload) {
    const Bytes size = vexa::test::Le32(static_cast<std::uint32_t>(payload.size()));
    return size + Bytes{'U', '0', '1', '2'} + payload;
}

inline Bytes SyncReply(std::uint8_t requestSequence) {
    const auto& signature = vexa::kInitialSyncReplySignature;
    return Sealed(Bytes{0xB8, 26, 0, 0, 26, requestSequence} +
                  Bytes(signature.begin(), signature.end()));
}

// A reply of the controller: `type` 0x98 or 0x9C.
inline Bytes Reply(std::uint32_t controller, std::uint8_t type, std::uint8_t command,
                   std::uint8_t requestSequence, std::uint8_t code) {
    return Tunnel(controller, Sealed({type, 7, 0, 0, command, requestSequence, code}), 0);
}

// The command in a packet for the multiplexer or for controller 1; 0 when there is none.
inline std::uint8_t CommandOf(const Bytes& packet) {
    const bool toController = packet.size() > 12 && vexa::LoadLe32(packet, 4) == 1;
    if (packet[0] == 0x60) return toController ? packet[12] : std::uint8_t{0};
    return packet.size() > 4 ? packet[4] : std::uint8_t{0};
}

// Controller 1 has executed `request`.
inline Bytes Executed(const Bytes& request, std::uint8_t result = 0) {
    return Reply(1, 0x98, CommandOf(request), request[10], result);
}

// A service for hosts at a socket, one after the other, that answers as a test tells it to.
class FakeService {
  public:
    // Called on the service's thread with each packet of the host.
    using Handler = std::function<void(FakeService&, const Bytes& packet)>;

    FakeService(Handler handler_, const std::string& path) : handler(std::move(handler_)) {
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
        EXPECT_EQ(bind(listener.Get(), generic, sizeof address), 0) << path;
        EXPECT_EQ(listen(listener.Get(), 1), 0);
        thread = std::thread([this] { Serve(); });
    }

    ~FakeService() {
        shutdown(listener.Get(), SHUT_RDWR);
        HangUp();
        thread.join();
        close(connection);
        unlink(address.sun_path);
    }

    void SendBytes(const Bytes& bytes) {
        (void)send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);  // the host may have left
    }
    void SendFramed(const Bytes& packets) { SendBytes(Frame(packets)); }

    // Ends the connection.
    void HangUp() { shutdown(connection, SHUT_RDWR); }

    // Answers an initial sync and the controller's commands with their acknowledgements.
    static void Obey(FakeService& service, const Bytes& packet) {
        const std::uint8_t command = CommandOf(packet);
        if (command == 26) service.SendFramed(SyncReply(packet[2]));
        if (command >= 0x70) service.SendFramed(Executed(packet));
    }

  private:
    void Serve() {
        PacketReader packets;
        std::array<std::uint8_t, 1000> buffer{};
        for (int host = 0; (host = accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            const vexa::testkit::Descriptor former(connection.exchange(host));
            packets = {};
            for (ssize_t count = 0; (count = recv(host, buffer.data(), buffer.size(), 0)) > 0;) {
                auto input = std::span<const std::uint8_t>(buffer).first(std::size_t(count));
                while (const auto packet = packets.Next(input)) {
                    handler(*this, Bytes(packet->bytes.begin(), packet->bytes.end()));
                }
            }
        }
    }

    const Handler handler;
    sockaddr_un address{AF_UNIX, {}};
    vexa::testkit::Descriptor listener{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::atomic<int> connection{-1};  // open until the next one, as any thread may use it
    std::thread thread;
};

}  // namespace vexahost
