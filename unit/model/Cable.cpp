#include "model/Cable.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

#include "model/UnitSocket.h"

namespace vexa::unit {

using testkit::Descriptor;

namespace {

// How long a host waits for a program that does not look at the cable's state.
constexpr std::chrono::seconds kLongestWait{2};

bool HasHungUp(int client) {
    pollfd entry{client, POLLRDHUP, 0};
    return ::poll(&entry, 1, 0) == 1;
}

// Waits for `events` on `client` (-1: none) or the end of the state. False when a signal arrived.
bool Await(int client, short events, const Descriptor& ended) {
    std::array<pollfd, 2> entries{{{client, events, 0}, {ended.Get(), POLLIN, 0}}};
    return ::poll(entries.data(), entries.size(), -1) >= 0;
}

bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

}  // namespace

Cable::Cable(Descriptor listener_, const CableSettings& settings_, std::uint32_t seed,
             std::function<void(bool)> changed_)
    : listener(std::move(listener_)),
      wake(MakeEvent()),
      changed(std::move(changed_)),
      state(NewState()),
      settings(settings_),
      random(seed, "cable") {
    thread = StartQuietThread([this] { Run(); });
}

Cable::~Cable() {
    {
        const MutexLock lock(mutex);
        stopping = true;
    }
    Signal(wake);
    thread.join();
}

std::shared_ptr<Cable::State> Cable::NewState() {
    auto fresh = std::make_shared<State>();
    fresh->ended = MakeEvent();
    return fresh;
}

std::shared_ptr<Cable::State> Cable::Current() const {
    const MutexLock lock(mutex);
    return state;
}

bool Cable::IsIn() const { return Current()->in; }

bool Cable::ShowToProgram() const {
    const auto current = Current();
    if (!current->seen.exchange(true)) Signal(wake);
    return current->in;
}

void Cable::Change(const CableSettings& settings_) {
    MutexLock lock(mutex);
    settings = settings_;
    const std::uint64_t number = ++wanted;
    Signal(wake);
    while (followed < number) followedChanged.wait(lock);
}

CableCounts Cable::Counts() const { return {hosts, bytesFromHost, bytesToHost}; }

void Cable::Enter(std::shared_ptr<State> next) {
    const bool in = next->in;
    std::shared_ptr<State> last;
    {
        const MutexLock lock(mutex);
        last = std::exchange(state, std::move(next));
    }
    Signal(last->ended);
    (void)OrFail(false, [&] {
        changed(in);
        return true;
    });
}

void Cable::PlugIn(Descriptor client) {
    const auto plugIn = [&] {
        auto next = NewState();
        next->after = NewState();
        next->client = std::move(client);
        next->in = true;
        ++hosts;
        Enter(std::move(next));
        return true;
    };
    (void)OrFail(false, plugIn);  // else the host is turned away
}

void Cable::PullOut(const std::shared_ptr<State>& leaving) {
    // The host sees the end at once, although the descriptor stays open while it is in use.
    ::shutdown(leaving->client.Get(), SHUT_WR);
    auto next = std::move(leaving->after);
    next->former = leaving;
    waitsUntil = Clock::now() + kLongestWait;
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
        if (got > 0) {
            bytesFromHost += static_cast<std::uint64_t>(got);
            return got;
        }
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
            bytesToHost += static_cast<std::uint64_t>(went);
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

void Cable::AcceptClient() {
    Descriptor client(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) {
        if (!HasNoDescriptor(errno)) return;
        pollfd woken{wake.Get(), POLLIN, 0};
        ::poll(&woken, 1, kRetryAcceptMs);
        return;
    }
    if (!mayBeIn) return;  // turns the client away
    const auto current = Current();
    if (current->in) {
        if (!HasHungUp(current->client.Get())) {
            refused = RefuseHost(std::move(client));
            return;
        }
        PullOut(current);
    }
    waiting = std::move(client);
}

void Cable::PlugInWaiting() {
    if (!waiting) return;
    const auto current = Current();
    const bool sawItIn = current->former != nullptr && current->former->seen;
    if (sawItIn && !current->seen && Clock::now() < waitsUntil) return;
    PlugIn(std::move(waiting));
}

void Cable::LetIn(bool in) {
    mayBeIn = in;
    const auto current = Current();
    if (in) return;
    waiting.Close();
    if (current->in) PullOut(current);
}

void Cable::FollowSettings() {
    CableSettings current;
    std::uint64_t number = 0;
    {
        const MutexLock lock(mutex);
        if (followed == wanted) return;
        current = settings;
        number = wanted;
    }
    LetIn(current.in);
    nextFlap = kNever;
    if (current.in && current.flapping) {
        flapping = *current.flapping;
        flaps = 0;
        nextFlap = Clock::now() + Varied(flapping.inMs);
    }
    const MutexLock lock(mutex);
    followed = number;
    followedChanged.notify_all();
}

void Cable::Flap() {
    if (Clock::now() < nextFlap) return;
    const bool in = !mayBeIn;
    LetIn(in);
    if (!in) ++flaps;
    if (in && flapping.times != 0 && flaps >= flapping.times) {
        nextFlap = kNever;
        return;
    }
    nextFlap = Clock::now() + Varied(in ? flapping.inMs : flapping.outMs);
}

std::chrono::milliseconds Cable::Varied(std::uint32_t ms) {
    const std::uint32_t most = ms / 100 * flapping.jitter + ms % 100 * flapping.jitter / 100;
    return std::chrono::milliseconds(ms - most + random.Below(2 * most + 1));
}

int Cable::UntilNextTaskMs() const {
    const TimePoint next = waiting ? std::min(nextFlap, waitsUntil) : nextFlap;
    if (next == kNever) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

bool Cable::IsStopping() {
    const MutexLock lock(mutex);
    return stopping;
}

void Cable::Run() {
    while (true) {
        if (IsStopping()) return;
        FollowSettings();
        Flap();
        PlugInWaiting();
        const auto current = Current();
        std::array<pollfd, 4> entries{{{wake.Get(), POLLIN, 0},
                                       {waiting ? -1 : listener.Get(), POLLIN, 0},
                                       {current->in ? current->client.Get() : -1, POLLRDHUP, 0},
                                       {refused.Get(), POLLRDHUP, 0}}};
        if (::poll(entries.data(), entries.size(), UntilNextTaskMs()) <= 0) continue;
        if (entries[0].revents != 0) {
            ClearSignal(wake);
        } else if (entries[1].revents != 0) {
            AcceptClient();
        } else if (entries[2].revents != 0) {
            PullOut(current);
        } else if (entries[3].revents != 0) {
            refused.Close();
        }
    }
}

}  // namespace vexa::unit
