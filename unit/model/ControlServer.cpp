#include "model/ControlServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

namespace vexa::unit {

using testkit::Descriptor;

namespace {

constexpr std::size_t kMaxLine = 65536;
constexpr std::size_t kMaxUnsent = 4U << 20U;
constexpr std::size_t kMaxClients = 64;

// Pause before accepting again when the process has no descriptor left for a client.
constexpr int kRetryMs = 100;

bool IsTemporary(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

}  // namespace

ControlServer::ControlServer(Descriptor listener_, Answer answer_)
    : listener(std::move(listener_)), stop(::eventfd(0, EFD_CLOEXEC)), answer(std::move(answer_)) {
    thread = StartQuietThread([this] { Run(); });
}

ControlServer::~ControlServer() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(stop.Get(), &one, sizeof one);
    thread.join();
}

void ControlServer::AcceptClient() {
    Descriptor connection(
        ::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (connection && clients.size() < kMaxClients) {
        clients.push_back({.connection = std::move(connection)});
    } else if (!connection && (errno == EMFILE || errno == ENFILE)) {
        pollfd stopped{stop.Get(), POLLIN, 0};
        ::poll(&stopped, 1, kRetryMs);
    }
}

void ControlServer::Read(Client& client) const {
    std::array<char, 4096> chunk{};
    const auto got = ::recv(client.connection.Get(), chunk.data(), chunk.size(), 0);
    if (got < 0 && IsTemporary(errno)) return;
    if (got < 0) {
        client.isGone = true;
        return;
    }
    client.received.append(chunk.data(), static_cast<std::size_t>(got));
    if (got == 0) {
        client.isEnding = true;
        if (!client.received.empty()) client.received += '\n';  // a last line without its end
    }
    AnswerLines(client);
}

void ControlServer::AnswerLines(Client& client) const {
    std::size_t start = 0;
    for (auto end = client.received.find('\n'); end != std::string::npos && !client.isGone;
         end = client.received.find('\n', start)) {
        client.unsent += answer(client.received.substr(start, end - start)) + '\n';
        start = end + 1;
        if (client.unsent.size() > kMaxUnsent) client.isGone = true;
    }
    client.received.erase(0, start);
    if (client.received.size() <= kMaxLine) return;
    client.received.clear();
    client.unsent += R"({"ok":false,"error":"a line may have )" + std::to_string(kMaxLine) +
                     " bytes at most\"}\n";
    client.isEnding = true;
}

void ControlServer::Write(Client& client) {
    while (!client.unsent.empty()) {
        const auto went = ::send(client.connection.Get(), client.unsent.data(),
                                 client.unsent.size(), MSG_NOSIGNAL);
        if (went < 0) {
            if (!IsTemporary(errno)) client.isGone = true;
            return;
        }
        client.unsent.erase(0, static_cast<std::size_t>(went));
    }
}

void ControlServer::Serve(Client& client, short events) const {
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0 && !client.isEnding) Read(client);
    Write(client);
    if (client.isEnding && client.unsent.empty()) client.isGone = true;
    // It may disconnect while answers wait for it, and nothing is read that would show it.
    if (client.isEnding && (events & (POLLHUP | POLLERR)) != 0) client.isGone = true;
}

void ControlServer::Run() {
    std::vector<pollfd> entries;
    while (true) {
        entries.assign({{stop.Get(), POLLIN, 0}, {listener.Get(), POLLIN, 0}});
        for (const auto& client : clients) {
            const int events =
                (client.isEnding ? 0 : POLLIN) | (client.unsent.empty() ? 0 : POLLOUT);
            entries.push_back({client.connection.Get(), static_cast<short>(events), 0});
        }
        if (::poll(entries.data(), entries.size(), -1) < 0) continue;
        if (entries[0].revents != 0) return;
        for (std::size_t index = 0; index < clients.size(); ++index) {
            if (const short events = entries[index + 2].revents; events != 0) {
                Serve(clients[index], events);
            }
        }
        std::erase_if(clients, [](const Client& client) { return client.isGone; });
        if (entries[1].revents != 0) AcceptClient();
    }
}

}  // namespace vexa::unit
