// The link to a unit: the transport, who writes to it, who connects anew, and what ends a wait.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "foundation/Mutex.h"
#include "lib/Inbox.h"
#include "lib/Receiver.h"
#include "vexahost/Client.h"

namespace vexahost {

// Any thread.
//
// Who may write: the thread that has the write turn, for one packet, so that packets stay whole.
// Who connects anew: the thread that has the reconnect turn. Only it starts and stops the receiver,
// and it replaces the transport while nobody writes.
// What ends a wait: its deadline, ClientOptions::isCancelled, and the end of the connection; that
// of a reconnect: Close instead of the last.
class Link {
  public:
    // `inbox` and `options` outlive the link. Without a factory it has the one connection that
    // Start is given.
    Link(Inbox& inbox, const ClientOptions& options, TransportFactory factory);
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // The first connection: one that is there already, or one attempt to make it. As the first
    // call.
    void Start(std::unique_ptr<Transport> connected);
    Expected<Done> Connect(Deadline deadline);

    // See Client.
    Expected<Done> Reconnect(Deadline deadline, std::optional<std::uint64_t> lost);
    Expected<std::vector<std::uint8_t>> InitialSync(Deadline deadline);
    void Close();

    // Sends a packet when its turn has come.
    Expected<Done> Send(std::span<const std::uint8_t> packet, Deadline deadline);

    [[nodiscard]] ClientStatistics Statistics() const { return receiver.Statistics(); }

  private:
    class WriteTurn;
    class ReconnectTurn;

    Expected<Done> AwaitWriteTurn(WriteTurn& turn, Deadline deadline);
    Expected<Done> WriteWhole(Transport& to, std::span<const std::uint8_t> packet,
                              Deadline deadline);
    void SendSyncAtOnce();

    Expected<Done> AttemptUntil(Deadline deadline, std::uint64_t closesSeen);
    Expected<Done> Attempt(Deadline deadline, std::uint64_t closesSeen);
    Expected<Done> Use(std::shared_ptr<Transport> connected, std::uint64_t closesSeen);
    void EndConnection();
    bool IsClosedSince(std::uint64_t closesSeen);
    [[nodiscard]] bool IsCancelled() const { return options.isCancelled && options.isCancelled(); }
    // Waits for a change of what the mutex guards, until `deadline` or a short time.
    void WaitForChange(vexa::MutexLock& lock, Deadline deadline) VEXA_REQUIRES(mutex);

    Inbox& inbox;
    const ClientOptions& options;
    const TransportFactory factory;  // null when the connection was given
    Receiver receiver;

    vexa::Mutex mutex;
    std::condition_variable_any changed;
    std::shared_ptr<Transport> transport VEXA_GUARDED_BY(mutex);  // null before the first
    std::uint64_t closes VEXA_GUARDED_BY(mutex) = 0;              // calls of Close
    bool reconnecting VEXA_GUARDED_BY(mutex) = false;             // a thread has the turn
    bool writing VEXA_GUARDED_BY(mutex) = false;                  // a thread has the turn
    // A packet was sent in part. The unit drops it at the next initial sync, which therefore goes
    // first. Only the thread that has the turn to write touches this.
    bool torn = false;
};

}  // namespace vexahost
