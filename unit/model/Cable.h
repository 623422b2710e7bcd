// The cable between the unit and its host: a connection to the host socket. While a client is
// connected the cable is in; when it disconnects the cable is out. When the settings take the cable
// out, the client is disconnected and new ones are turned away until the cable may be in again.
//
// There is one host at a time. Another that connects gets kBusyHeader and nothing else. One that
// connects after the first has gone is plugged in once the program has seen the cable out, as a
// program would on a unit, where nobody exchanges hosts between two looks at the cable.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <thread>

#include "foundation/Mutex.h"
#include "model/Random.h"
#include "model/Runtime.h"
#include "model/Scenario.h"
#include "testkit/Descriptor.h"

namespace vexa::unit {

// Statistics of the cable.
struct CableCounts {
    std::uint64_t hosts = 0;          // that have plugged in
    std::uint64_t bytesFromHost = 0;  // that were read
    std::uint64_t bytesToHost = 0;
};

// Any thread; no lock is held while Read or Write blocks, and they allocate nothing. The bytes of
// two concurrent writes may mix when the client is slow.
class VEXA_UNIT_EXPORT Cable {
  public:
    // Accepts clients from `listener` on a thread of its own, which also calls `changed` whenever
    // the cable has gone in (true) or out. `seed` is for the irregularity of flapping. Throws
    // std::system_error.
    Cable(testkit::Descriptor listener, const CableSettings& settings, std::uint32_t seed,
          std::function<void(bool)> changed);
    Cable(const Cable&) = delete;
    Cable& operator=(const Cable&) = delete;
    // No Read or Write may be running.
    ~Cable();

    [[nodiscard]] bool IsIn() const;

    // The same, for the program: it has seen this state of the cable then.
    [[nodiscard]] bool ShowToProgram() const;

    // Whether hosts can plug in now.
    [[nodiscard]] bool MayBeIn() const { return mayBeIn; }

    // Returns when the cable is as the settings say. Not from `changed`.
    void Change(const CableSettings& settings_);

    [[nodiscard]] CableCounts Counts() const;

    // Waits, also while the cable is out, until the host has sent something. Returns the number of
    // bytes, or -1 with errno EINTR when a signal arrived first. What a host sent before it
    // disconnected can be read until the next one plugs in.
    [[nodiscard]] ssize_t Read(std::span<std::uint8_t> into);

    // Sends all of `bytes`, waiting for a slow client. Returns the number of bytes sent, which is
    // smaller only when a signal arrived; or -1 with errno ESHUTDOWN when the cable is out or goes
    // out, EINTR when a signal arrived before anything was sent.
    [[nodiscard]] ssize_t Write(std::span<const std::uint8_t> bytes);

  private:
    // The cable between two changes. Readers and writers share ownership of the state that they
    // wait on, so that its descriptors stay open, and are woken by `ended`, which is never reset.
    struct State {
        testkit::Descriptor client;     // of the host that is, or was last, plugged in
        std::shared_ptr<State> former;  // with the cable out: the last state with it in
        // With the cable in: the state once it is out. It is made beforehand, since pulling the
        // cable out must not fail.
        std::shared_ptr<State> after;
        testkit::Descriptor ended;  // eventfd, readable once there is a newer state
        bool in = false;
        std::atomic<bool> seen = false;  // by the program
    };

    [[nodiscard]] static std::shared_ptr<State> NewState();
    [[nodiscard]] std::shared_ptr<State> Current() const;
    void Enter(std::shared_ptr<State> next);
    void PlugIn(testkit::Descriptor client);
    void PullOut(const std::shared_ptr<State>& leaving);

    // The cable's thread.
    void Run();
    void AcceptClient();
    void PlugInWaiting();
    void FollowSettings();
    // Goes in or out by itself when that is due.
    void Flap();
    void LetIn(bool in);
    // `ms`, more or less by what the settings allow.
    [[nodiscard]] std::chrono::milliseconds Varied(std::uint32_t ms);
    [[nodiscard]] int UntilNextTaskMs() const;
    [[nodiscard]] bool IsStopping();

    const testkit::Descriptor listener;
    const testkit::Descriptor wake;  // eventfd, readable when the thread has something to do
    const std::function<void(bool)> changed;
    mutable Mutex mutex;
    std::shared_ptr<State> state VEXA_GUARDED_BY(mutex);
    CableSettings settings VEXA_GUARDED_BY(mutex);
    bool stopping VEXA_GUARDED_BY(mutex) = false;
    std::uint64_t wanted VEXA_GUARDED_BY(mutex) = 1;    // number of the current settings
    std::uint64_t followed VEXA_GUARDED_BY(mutex) = 0;  // of those that the thread applied last
    std::condition_variable_any followedChanged;

    std::atomic<bool> mayBeIn = true;  // written by the cable's thread

    // The cable's thread only.
    // The host that was refused last. Its connection stays open for what it sends, so that it comes
    // to read the answer, until it leaves.
    testkit::Descriptor refused;
    testkit::Descriptor waiting;    // a host that is plugged in once the program has seen the
    TimePoint waitsUntil = kNever;  // cable out, or at this time
    Random random;
    CableFlapping flapping;
    std::uint32_t flaps = 0;  // how often it has gone out
    TimePoint nextFlap = kNever;

    std::atomic<std::uint64_t> hosts = 0;
    std::atomic<std::uint64_t> bytesFromHost = 0;
    std::atomic<std::uint64_t> bytesToHost = 0;
    std::thread thread;
};

}  // namespace vexa::unit
