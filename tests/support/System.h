// The system as a test wants it: a program linked with test_system has the service's system calls
// led here. Time can be virtual, each call can be made to fail, and the gadget node is a socket
// whose other end the test holds.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "support/Bytes.h"

namespace vexa::test {

// While one exists, sleeps return at once and move a clock of its own.
class VirtualTime {
  public:
    // The clock starts at `milliseconds`.
    explicit VirtualTime(std::uint64_t milliseconds = 1'000'000);
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

// Calls that were counted. Any thread.
struct Counted {
    std::atomic<int> accepts{0};
    std::atomic<int> socketOptions{0};
};
inline Counted counted;

// The gadget node.
class ScriptedNode {
  public:
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

    void HostSends(const Bytes& bytes) const;
    // Exactly `count` bytes that the service has written.
    [[nodiscard]] Bytes HostReads(std::size_t count) const;
    // True when nothing that was written is left to read.
    [[nodiscard]] bool HostHasNothing() const;

    int nodeEnd = -1;
    int hostEnd = -1;
};

}  // namespace vexa::test
