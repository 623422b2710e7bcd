// How a client comes to its connection, and to the next one.
#include <algorithm>

#include "Inbox.h"
#include "PendingReplies.h"
#include "Receiver.h"
#include "vexahost/Client.h"

namespace vexahost {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr Milliseconds kPause{100};  // between two attempts

Milliseconds Until(SteadyClock::time_point deadline) {
    return std::max(std::chrono::ceil<Milliseconds>(deadline - SteadyClock::now()),
                    Milliseconds{0});
}

}  // namespace

Expected<std::unique_ptr<Client>> Client::Connect(TransportFactory factory, ClientOptions options,
                                                  Milliseconds timeout) {
    std::unique_ptr<Client> client(new Client(std::move(factory), std::move(options)));
    client->EndConnection();  // there is none yet: what PutToUse begins with
    if (const auto done = client->Attempt(SteadyClock::now() + timeout, 0); !done) {
        return done.Failure();
    }
    return client;
}

Expected<Done> Client::Reconnect(Milliseconds timeout) {
    const auto deadline = SteadyClock::now() + timeout;
    if (!factory) {
        return Error{ErrorKind::kInvalidArgument,
                     "this client was given its connection and cannot make another"};
    }
    std::uint64_t closesSeen = 0;
    {
        std::unique_lock lock(linkMutex);
        if (!linkChanged.wait_until(lock, deadline, [&] { return !reconnecting; })) {
            return Error{ErrorKind::kTimeout, "no turn in time to reconnect"};
        }
        reconnecting = true;
        closesSeen = closes;
    }
    auto done = AttemptUntil(deadline, closesSeen);
    if (!done) EndConnection();
    {
        const std::lock_guard lock(linkMutex);
        reconnecting = false;
    }
    linkChanged.notify_all();
    return done;
}

Expected<Done> Client::AttemptUntil(SteadyClock::time_point deadline, std::uint64_t closesSeen) {
    for (;;) {
        EndConnection();
        receiver->Stop();
        auto done = Attempt(deadline, closesSeen);
        if (done || done.Failure().kind == ErrorKind::kInvalidArgument) return done;
        std::unique_lock lock(linkMutex);
        const bool closed = linkChanged.wait_for(lock, std::min(kPause, Until(deadline)),
                                                 [&] { return closes != closesSeen; });
        if (closed) return ClosedHere();
        if (SteadyClock::now() >= deadline) return done;
    }
}

Expected<Done> Client::Attempt(SteadyClock::time_point deadline, std::uint64_t closesSeen) {
    auto connected = factory();
    if (!connected) return connected.Failure();
    if (auto used = PutToUse(std::move(*connected), closesSeen); !used) return used;
    const auto reply = InitialSync(Until(deadline));
    if (!reply) return reply.Failure();
    return Done{};
}

// With the former connection ended and its receiving thread stopped.
Expected<Done> Client::PutToUse(std::shared_ptr<Transport> connected, std::uint64_t closesSeen) {
    const std::scoped_lock lock(writeMutex, linkMutex);
    if (closes != closesSeen) return ClosedHere();
    transport = std::move(connected);
    controllerId = 0;
    inbox->Restart();
    pending->Restart();
    receiver->Start(transport);
    return Done{};
}

}  // namespace vexahost
