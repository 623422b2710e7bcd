#include "model/Cable.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

#include "model/QuietThread.h"

namespace vexa::unit {

namespace {

// How long the thread leaves a client waiting for which the process had no descriptor left.
constexpr int kRetryAcceptMs = 100;

void Signal(const Descriptor& event) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(event.Get(), &one, sizeof one);
}

bool HasHungUp(int client) {
    pollfd entry{client, POLLRDHUP, 0};
    return ::poll(&entry, 1, 0) == 1;
}

// Waits for `events` on `client` (-1: for nothing) or the end of the state. False: interrupted.
bool Await(int client, short events, const Descriptor& ended) {
    std::array<pollfd, 2> entries{{{client, events, 0}, {ended.Get(), POLLIN, 0}}};
    return ::poll(entries.data(), entries.size(), -1) >= 0;
}

bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

}  // namespace

Cable::Cable(Descriptor listener_, std::function<void(bool)> changed_)
    : listener(std::move(listener_)),
      stop(::eventfd(0, EFD_CLOEXEC)),
      changed(std::move(changed_)),
      state(NewState()) {
    thread = StartQuietThread([this] { Run(); });
}

Cable::~Cable() {
    Signal(stop);
    thread.join();
}

std::shared_ptr<Cable::State> Cable::NewState() {
    auto fresh = std::make_shared<State>();
    fresh->ended = Descriptor(::eventfd(0, EFD_CLOEXEC));
    return fresh;
}

std::shared_ptr<Cable::State> Cable::Current() const {
    const std::lock_guard lock(mutex);
    return state;
}

bool Cable::IsIn() const { return Current()->in; }

void Cable::Enter(std::shared_ptr<State> next) {
    const bool in = next->in;
    std::shared_ptr<State> last;
    {
        const std::lock_guard lock(mutex);
        last = std::exchange(state, std::move(next));
    }
    Signal(last->ended);
    changed(in);
}

void Cable::PlugIn(Descriptor client) {
    auto next = NewState();
    next->client = std::move(client);
    next->in = true;
    Enter(std::move(next));
}

void Cable::PullOut(const std::shared_ptr<State>& leaving) {
    // The host sees its end closed at once, though the descriptor lives on while it is in use.
    ::shutdown(leaving->client.Get(), SHUT_WR);
    auto next = NewState();
    next->former = leaving;
    Enter(std::move(next));
}

ssize_t Cable::Read(std::span<std::uint8_t> into) {
    if (into.empty()) return 0;
    while (true) {
        const auto current = Current();
        const State* const source = current->in ? current.get() : current->former.get();
        ssize_t got = 0;
        if (source != nullptr) {
            got = ::recv(source->client.Get(), into.data(), into.size(), MSG_DONTWAIT);
        }
        if (got > 0) return got;
        // A client that has hung up is always readable: wait for the state to end instead.
        const bool open = current->in && got < 0 && WouldBlock(errno);
        if (!Await(open ? source->client.Get() : -1, POLLIN, current->ended)) return -1;
    }
}

ssize_t Cable::Write(std::span<const std::uint8_t> bytes) {
    const auto current = Current();
    std::size_t sent = 0;
    while (current->in && sent < bytes.size()) {
        const auto left = bytes.subspan(sent);
        const auto went =
            ::send(current->client.Get(), left.data(), left.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (went > 0) {
            sent += static_cast<std::size_t>(went);
            continue;
        }
        if (!WouldBlock(errno)) break;
        if (!Await(current->client.Get(), POLLOUT, current->ended)) {
            return sent > 0 ? static_cast<ssize_t>(sent) : -1;
        }
        if (Current() != current) break;
    }
    if (current->in && sent == bytes.size()) return static_cast<ssize_t>(sent);
    errno = ESHUTDOWN;
    return -1;
}

void Cable::TakeClient() {
    Descriptor client(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) {
        if (errno != EMFILE && errno != ENFILE) return;
        pollfd stopped{stop.Get(), POLLIN, 0};
        ::poll(&stopped, 1, kRetryAcceptMs);
        return;
    }
    const auto current = Current();
    if (current->in) {
        if (!HasHungUp(current->client.Get())) return;  // one host at a time: closes the newcomer
        PullOut(current);
    }
    PlugIn(std::move(client));
}

void Cable::Run() {
    while (true) {
        const auto current = Current();
        std::array<pollfd, 3> entries{{{stop.Get(), POLLIN, 0},
                                       {listener.Get(), POLLIN, 0},
                                       {current->in ? current->client.Get() : -1, POLLRDHUP, 0}}};
        if (::poll(entries.data(), entries.size(), -1) < 0) continue;
        if (entries[0].revents != 0) return;
        if (entries[1].revents != 0) {
            TakeClient();
        } else if (entries[2].revents != 0) {
            PullOut(current);
        }
    }
}

}  // namespace vexa::unit
