// The cable between the unit and its host: a connection to the host socket. While a client is
// connected the cable is in; when it leaves the cable is out. Taken out by the settings, the client
// is hung up on, and others are turned away until the cable may be in again.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <thread>

#include "model/Clock.h"
#include "model/Descriptor.h"
#include "model/Export.h"
#include "model/Scenario.h"

namespace vexa::unit {

struct CableCounts {
    std::uint64_t hosts = 0;          // that were plugged in so far
    std::uint64_t bytesFromHost = 0;  // that were read
    std::uint64_t bytesToHost = 0;
};

// Read, Write and IsIn from any thread at the same time; no lock is held while one blocks, and
// nothing is allocated. Two concurrent writes may mix when the client is slow.
class VEXA_UNIT_EXPORT Cable {
  public:
    // Takes clients from `listener` on a thread of its own, which calls `changed` whenever the
    // cable has gone in (true) or out.
    Cable(Descriptor listener, const CableSettings& settings, std::function<void(bool)> changed);
    Cable(const Cable&) = delete;
    Cable& operator=(const Cable&) = delete;
    // Nobody may be inside Read or Write any more.
    ~Cable();

    [[nodiscard]] bool IsIn() const;

    // Returns once the cable is as the settings say. Not from `changed`.
    void Change(const CableSettings& settings_);

    [[nodiscard]] CableCounts Counts() const;

    // Waits, also with the cable out, until the host has sent something; returns how many bytes
    // came, or -1 with errno: EINTR when a signal came first. What a host sent before it left can
    // be read until the next one plugs in.
    [[nodiscard]] ssize_t Read(std::span<std::uint8_t> into);

    // Sends all of `bytes`, waiting for a slow client. Returns how many went, fewer only when a
    // signal came; or -1 with errno: ESHUTDOWN when the cable is out or goes out, EINTR when a
    // signal came before anything had gone.
    [[nodiscard]] ssize_t Write(std::span<const std::uint8_t> bytes);

  private:
    // The cable between two changes. Readers and writers hold on to the state that they wait on,
    // so that its descriptors stay open, and are woken by `ended`, which is never reset.
    struct State {
        Descriptor client;              // of the host that is, or was last, plugged in
        std::shared_ptr<State> former;  // with the cable out: the last state with it in
        Descriptor ended;               // eventfd, readable once the next state has come
        bool in = false;
    };

    [[nodiscard]] static std::shared_ptr<State> NewState();
    [[nodiscard]] std::shared_ptr<State> Current() const;
    void Enter(std::shared_ptr<State> next);
    void PlugIn(Descriptor client);
    void PullOut(const std::shared_ptr<State>& leaving);

    // All below: the cable's thread.
    void Run();
    void TakeClient();
    // Takes over settings that have changed.
    void FollowSettings();
    // Goes in or out by itself when that is due.
    void Flap();
    void LetIn(bool in);
    [[nodiscard]] int UntilNextFlapMs() const;

    const Descriptor listener;
    const Descriptor wake;  // eventfd, readable once the thread is to end or to follow settings
    const std::function<void(bool)> changed;
    mutable std::mutex mutex;  // guards state, settings, stopping and the two numbers
    std::shared_ptr<State> state;
    CableSettings settings;
    bool stopping = false;
    std::uint64_t wanted = 1;  // number of the settings
    std::uint64_t followed = 0;
    std::condition_variable followedChanged;

    // The thread's own.
    bool mayBeIn = true;
    CableFlapping flapping;
    std::uint32_t flaps = 0;  // how often it has gone out
    TimePoint nextFlap = kNever;

    std::atomic<std::uint64_t> hosts = 0;
    std::atomic<std::uint64_t> bytesFromHost = 0;
    std::atomic<std::uint64_t> bytesToHost = 0;
    std::thread thread;
};

}  // namespace vexa::unit
