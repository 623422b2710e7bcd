#include "host/FakeService.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "protocol/InitialSync.h"
#include "protocol/Packet.h"
#include "vexahost/PacketReader.h"
#include "vexahost/SocketTransport.h"

namespace vexahost {

Bytes Part(const Bytes& bytes, std::size_t from, std::size_t to) {
    return {bytes.begin() + static_cast<std::ptrdiff_t>(from),
            bytes.begin() + static_cast<std::ptrdiff_t>(to)};
}

Bytes Frame(const Bytes& payload) {
    Bytes header = {0, 0, 0, 0, 'U', '0', '1', '2'};
    vexa::StoreLe32(header, 0, static_cast<std::uint32_t>(payload.size()));
    return header + payload;
}

Bytes ChildBlock(std::uint32_t child, std::uint8_t sequence, const Bytes& data) {
    Bytes packet = {0x60, static_cast<std::uint8_t>(data.size() + 8), sequence, 0, 0, 0, 0, 0};
    vexa::StoreLe32(packet, 4, child);
    return Sealed(packet + data);
}

Bytes SyncReply(std::uint8_t sequence, std::uint8_t requestSequence) {
    Bytes packet = {0xB8, 26, sequence, 0, 26, requestSequence};
    packet.insert(packet.end(), vexa::kInitialSyncReplySignature.begin(),
                  vexa::kInitialSyncReplySignature.end());
    return Sealed(packet);
}

Bytes ControllerReply(std::uint32_t controller, std::uint8_t sequence, std::uint8_t type,
                      std::uint8_t command, std::uint8_t requestSequence, std::uint8_t code) {
    return ChildBlock(controller, sequence,
                      Sealed({type, 7, sequence, 0, command, requestSequence, code}));
}

FakeService::FakeService(Handler packetHandler) : handler(std::move(packetHandler)) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0) {
        connection = ends[0];
        hostEnd = ends[1];
    }
    thread = std::thread([this] { Serve(); });
}

FakeService::FakeService(const std::string& path, Handler packetHandler)
    : handler(std::move(packetHandler)), listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0) {
        return;
    }
    thread = std::thread([this] {
        for (;;) {
            const int host = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (host < 0) return;
            const int former = connection.exchange(host);
            if (former >= 0) close(former);
            Serve();
        }
    });
}

FakeService::~FakeService() {
    if (listener >= 0) shutdown(listener, SHUT_RDWR);
    HangUp();
    if (thread.joinable()) thread.join();
    if (connection >= 0) close(connection);
    if (listener >= 0) close(listener);
}

std::unique_ptr<Transport> FakeService::TakeTransport() {
    return std::make_unique<SocketTransport>(hostEnd, Framing::kFrameHeaders);
}

void FakeService::SendBytes(const Bytes& bytes) {
    (void)send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);  // the host may have left
}

void FakeService::HangUp() { shutdown(connection, SHUT_RDWR); }

void FakeService::Serve() {
    PacketReader packets;
    std::array<std::uint8_t, 1000> buffer{};
    for (;;) {
        const ssize_t count = recv(connection, buffer.data(), buffer.size(), 0);
        if (count <= 0) return;
        auto input = std::span<const std::uint8_t>(buffer).first(static_cast<std::size_t>(count));
        while (const auto packet = packets.Next(input)) {
            handler(*this, Bytes(packet->bytes.begin(), packet->bytes.end()));
        }
    }
}

void FakeService::Obey(FakeService& service, const Bytes& packet) {
    if (packet[0] == 0x40 && packet[4] == 26) {
        service.SendFramed(SyncReply(0, packet[2]));
    } else if (packet[0] == 0x60 && packet.size() > 12) {
        const std::uint8_t command = packet[12];
        if (command == 0x72) service.controllerSequence = 0;
        service.SendFramed(
            ControllerReply(1, service.controllerSequence++, 0x98, command, packet[10], 0));
    }
}

}  // namespace vexahost
