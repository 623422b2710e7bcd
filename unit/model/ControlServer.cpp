#include "model/ControlServer.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
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

// How often an answer that comes later is asked for.
constexpr int kLaterMs = 5;

std::string Refusal(const std::string& why) { return R"({"ok":false,"error":")" + why + "\"}\n"; }

bool IsTemporary(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

}  // namespace

ControlServer::ControlServer(Descriptor listener_, Answer answer_)
    : listener(std::move(listener_)), wake(MakeEvent()), answer(std::move(answer_)) {
    thread = StartQuietThread([this] { Run(); });
}

ControlServer::~ControlServer() {
    stopping = true;
    Signal(wake);
    thread.join();
}

void ControlServer::Publish(const std::string& line) {
    if (!HasListeners()) return;
    {
        const MutexLock lock(mutex);
        events += line + '\n';
    }
    Signal(wake);
}

void ControlServer::PassEventsOn() {
    std::string lines;
    {
        const MutexLock lock(mutex);
        lines = std::exchange(events, {});
    }
    for (auto& client : clients) {
        if (!client.isSubscribed) continue;
        client.unsent += lines;
        Write(client);
        if (client.unsent.size() > kMaxUnsent) client.isGone = true;
    }
}

void ControlServer::AcceptClient() {
    Descriptor connection(
        ::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (connection) {
        const bool hasRoom = clients.size() < kMaxClients || MakeRoom();
        clients.push_back({.connection = std::move(connection), .lastServed = ++served});
        if (hasRoom) return;
        clients.back().unsent = Refusal("too many connections are waiting or listening");
        clients.back().isEnding = true;
        Write(clients.back());
        clients.pop_back();
    } else if (errno == EMFILE || errno == ENFILE) {
        pollfd woken{wake.Get(), POLLIN, 0};
        ::poll(&woken, 1, kRetryMs);
    }
}

bool ControlServer::MakeRoom() {
    const auto isBusy = [](const Client& client) { return client.later || client.isSubscribed; };
    const auto idle = std::ranges::min_element(clients, {}, [&](const Client& client) {
        return isBusy(client) ? UINT64_MAX : client.lastServed;
    });
    if (isBusy(*idle)) return false;
    idle->unsent += Refusal("disconnected: others have connected, and this one was idle longest");
    Write(*idle);
    clients.erase(idle);
    return true;
}

void ControlServer::Read(Client& client) {
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
}

void ControlServer::AnswerLines(Client& client) {
    while (!client.isGone) {
        if (client.later) {
            const auto line = client.later();
            if (!line) return;
            client.later = nullptr;
            client.unsent += *line + '\n';
        }
        const auto end = client.received.find('\n');
        if (end == std::string::npos) break;
        auto given = answer(client.received.substr(0, end));
        client.received.erase(0, end + 1);
        client.later = std::move(given.later);
        if (!client.later) client.unsent += given.line + '\n';
        if (given.subscribes && !std::exchange(client.isSubscribed, true)) ++listeners;
        if (client.unsent.size() > kMaxUnsent) client.isGone = true;
    }
    if (client.received.size() <= kMaxLine) return;
    client.received.clear();
    client.unsent += Refusal("a line may have " + std::to_string(kMaxLine) + " bytes at most");
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

void ControlServer::Serve(Client& client, short happened) {
    client.lastServed = ++served;
    if ((happened & (POLLIN | POLLHUP | POLLERR)) != 0 && !client.isEnding) Read(client);
    AnswerLines(client);
    Write(client);
    const bool isAnswered = client.unsent.empty() && !client.later && !client.isSubscribed;
    if (client.isEnding && isAnswered) client.isGone = true;
    // It may disconnect while answers wait for it, and nothing is read that would show it.
    if (client.isEnding && (happened & (POLLHUP | POLLERR)) != 0) client.isGone = true;
}

bool ControlServer::IsAnyWaiting() const {
    return std::ranges::any_of(clients, [](const Client& client) { return bool(client.later); });
}

void ControlServer::Run() {
    std::vector<pollfd> entries;
    while (!stopping) {
        entries.assign({{wake.Get(), POLLIN, 0}, {listener.Get(), POLLIN, 0}});
        for (const auto& client : clients) {
            const int wanted = (client.isEnding || client.later ? 0 : POLLIN) |
                               (client.unsent.empty() ? 0 : POLLOUT);
            entries.push_back({client.connection.Get(), static_cast<short>(wanted), 0});
        }
        if (::poll(entries.data(), entries.size(), IsAnyWaiting() ? kLaterMs : -1) < 0) continue;
        if (entries[0].revents != 0) {
            ClearSignal(wake);
        }
        for (std::size_t index = 0; index < clients.size(); ++index) {
            const short happened = entries[index + 2].revents;
            if (happened == 0 && !clients[index].later) continue;
            // A client that there is no memory for is disconnected.
            clients[index].isGone = OrFail(true, [&] {
                Serve(clients[index], happened);
                return clients[index].isGone;
            });
        }
        PassEventsOn();
        std::erase_if(clients, [](const Client& client) { return client.isGone; });
        listeners = static_cast<std::size_t>(std::ranges::count_if(
            clients, [](const Client& client) { return client.isSubscribed; }));
        if (entries[1].revents == 0) continue;
        (void)OrFail(false, [&] {
            AcceptClient();
            return true;
        });
    }
}

}  // namespace vexa::unit
