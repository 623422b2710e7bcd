// The client's receiving thread: bytes to frames to packets to whoever waits for them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <thread>

#include "Inbox.h"
#include "PendingReplies.h"
#include "vexahost/Client.h"
#include "vexahost/FrameReader.h"
#include "vexahost/PacketReader.h"

namespace vexahost {

class Client::Receiver {
  public:
    /// The thread uses parts of `client` while it runs.
    explicit Receiver(Client& client);

    /// Stops.
    ~Receiver();
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    /// Starts the thread on a transport. Not while it runs; by one thread at a time, as Stop.
    void Start(std::shared_ptr<Transport> transport);

    /// Waits for the thread's end, if it runs; its transport must be closed before that.
    void Stop();

    /// From here to the next initial-sync reply that reply is looked for at every byte.
    void AwaitSyncReply() { syncAwaited.store(true); }

    [[nodiscard]] ClientStatistics Statistics() const;

  private:
    void Run(Transport& transport);
    Error ReadUntilError(Transport& transport);
    void TakePayload(std::span<const std::uint8_t> payload);
    void Dispatch(const PacketView& packet);
    void TakeTunnel(std::span<const std::uint8_t> packet);
    void TakeReply(ReplySource source, std::span<const std::uint8_t> reply);

    Client& client;
    FrameReader frames;    // the thread's own
    PacketReader packets;  // the thread's own
    std::atomic<bool> syncAwaited{true};
    std::atomic<std::uint64_t> frameCount{0};
    std::atomic<std::uint64_t> packetCount{0};
    std::atomic<std::uint64_t> wrongChecksums{0};
    std::atomic<std::uint64_t> strayReplies{0};
    std::atomic<std::uint64_t> strayPackets{0};
    std::thread thread;  // last, as it uses all of the above
};

}  // namespace vexahost
