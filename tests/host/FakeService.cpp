#include "host/FakeService.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>

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

std::string FakeService::OwnPath() {
    static std::atomic<int> count{0};
    return testing::TempDir() + "vexa-" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

FakeService::FakeService(Handler handler_, std::string path_)
    : handler(std::move(handler_)),
      path(std::move(path_)),
      listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    if (bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.Get(), 1) != 0) {
        return;
    }
    thread = std::thread([this] {
        for (;;) {
            const int host = accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC);
            if (host < 0) return;
            const int former = connection.exchange(host);
            if (former >= 0) close(former);
            Serve();
        }
    });
}

FakeService::~FakeService() {
    shutdown(listener.Get(), SHUT_RDWR);
    HangUp();
    if (thread.joinable()) thread.join();
    if (connection >= 0) close(connection);
    unlink(path.c_str());
}

std::unique_ptr<Transport> FakeService::Connect() const {
    return std::move(*SocketTransport::ConnectUnit(path));
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

FakeService::Handler FakeService::On(std::uint8_t command, Handler answer) {
    return [=](FakeService& service, const Bytes& packet) {
        const std::size_t at = packet[0] == 0x60 ? 12 : 4;
        if (packet.size() > at && packet[at] == command) return answer(service, packet);
        Obey(service, packet);
    };
}

FakeService::Handler FakeService::Refuse(std::uint8_t command, std::uint8_t code) {
    return On(command, [=](FakeService& service, const Bytes& packet) {
        service.SendFramed(ControllerReply(1, 0, 0x9C, command, packet[10], code));
    });
}

ToolTest::ToolTest() {
    std::string pattern = testing::TempDir() + "vexa-host-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) folder = pattern;
}

ToolTest::~ToolTest() { std::filesystem::remove_all(folder); }

vexa::testkit::Finished ToolTest::Run(const std::string& commandLine) const {
    return vexa::testkit::RunShell("export HOST='" VEXA_HOST_PROGRAM "' VEXA_UNIT_DIR='" + folder +
                                   "'; " + commandLine);
}

}  // namespace vexahost
