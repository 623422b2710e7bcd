// The client's receiving thread: bytes to frames to packets, and these into the inbox.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <thread>

#include "lib/Inbox.h"
#include "vexahost/Client.h"
#include "vexahost/FrameReader.h"
#include "vexahost/PacketReader.h"

namespace vexahost {

class Receiver {
  public:
    // `inbox` and `options` outlive the receiver. `sendSync` sends an initial sync if that can be
    // done at once; it is called on the thread.
    Receiver(Inbox& inbox, const ClientOptions& options, std::function<void()> sendSync);

    // Stops.
    ~Receiver();
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    // Starts the thread on a transport. Not while it runs. Start and Stop: one thread at a time.
    void Start(std::shared_ptr<Transport> transport);

    // Waits for the end of the thread, if it runs. Its transport must be closed already.
    void Stop();

    // Until the next initial-sync reply or EndSearch, looks for that reply at every byte. Any
    // thread.
    void AwaitSyncReply() { syncAwaited.store(true); }
    void EndSearch() { syncAwaited.store(false); }

    // Any thread.
    [[nodiscard]] ClientStatistics Statistics() const;

  private:
    void Run(Transport& transport);
    Error ReadUntilError(Transport& transport);
    // Searches for the next packet after the step was lost. The error when that takes too long.
    std::optional<Error> Resynchronise();
    void OnPayload(std::span<const std::uint8_t> payload);
    void OnPacket(const PacketView& packet);
    void OnTunnelPacket(std::span<const std::uint8_t> packet);
    void OnReply(ReplySource source, std::span<const std::uint8_t> reply);

    Inbox& inbox;
    const ClientOptions& options;
    const std::function<void()> sendSync;
    // Receiver thread.
    FrameReader frames;
    PacketReader packets;
    std::string violation;               // why the step was lost
    std::optional<Deadline> searchEnds;  // nothing: in step, or nothing was received so far
    Deadline nextSync{};                 // when another initial sync is due
    // Any thread.
    std::atomic<bool> syncAwaited{true};
    std::atomic<std::uint64_t> frameCount{0};
    std::atomic<std::uint64_t> packetCount{0};
    std::atomic<std::uint64_t> wrongChecksums{0};
    std::atomic<std::uint64_t> strayReplies{0};
    std::atomic<std::uint64_t> strayPackets{0};
    std::atomic<std::uint64_t> resynchronisations{0};
    std::thread thread;  // last, as it uses all of the above
};

}  // namespace vexahost
