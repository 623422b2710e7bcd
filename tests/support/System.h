// The system as a test wants it: in a program linked with test_system, the service's system calls
// come here. Time can be virtual, each call can be made to fail, and the gadget node is a socket
// whose other end the test holds.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "support/TransportEnds.h"

namespace vexa::test {

// While one exists, sleeps are short and move a clock of its own.
class VirtualTime {
  public:
    // How long a sleep really takes, in microseconds. Unhurried where a reader thread must end
    // within the number of sleeps that a close waits for it, on a busy machine too.
    static constexpr int kHurried = 20;
    static constexpr int kUnhurried = 1000;

    // The clock starts at `milliseconds`.
    explicit VirtualTime(int sleepMicroseconds = kHurried, std::uint64_t milliseconds = 1'000'000);
    ~VirtualTime();
    VirtualTime(const VirtualTime&) = delete;
    VirtualTime& operator=(const VirtualTime&) = delete;

    static void Advance(std::uint64_t milliseconds);
    // The sleeps of the calling thread since the last call, in microseconds.
    static std::vector<std::int64_t> TakeSleeps();
};

// Calls that fail: the nth from now, 0 for none. Any thread.
struct Failing {
    std::atomic<int> threadCreate{0};
    std::atomic<int> mutexInit{0};
    std::atomic<int> semaphoreInit{0};
    std::atomic<int> listen{0};
    std::atomic<int> accept{0};
    std::atomic<int> write{0};       // with EIO
    std::atomic<int> shortWrite{0};  // writes one byte less
};
inline Failing failing;

// The next read waits for a signal before it begins; false again once it waits. Any thread.
inline std::atomic<bool> signalBeforeRead{false};

// Calls that were counted. Any thread.
struct Counted {
    std::atomic<int> accepts{0};
    std::atomic<int> socketOptions{0};
};
inline Counted counted;

// The gadget node, one at a time.
struct ScriptedNode {
    ScriptedNode();
    ~ScriptedNode();
    ScriptedNode(const ScriptedNode&) = delete;
    ScriptedNode& operator=(const ScriptedNode&) = delete;

    // What the driver does.
    bool present = true;                  // open fails with ENOENT if not
    std::atomic<int> pluggedIn{1};        // the answer to the link query
    std::atomic<bool> queryFails{false};  // with ENOTTY

    // What was seen.
    int openFlags = 0;
    std::atomic<int> queries{0};

    testkit::Descriptor nodeEnd;
    Peer host;
};

}  // namespace vexa::test
