// The gadget node as a test wants it: a program linked with scripted_node has its
// open, ioctl and write calls led here. The node's other end is a socket that the test holds.
#pragma once

#include <atomic>
#include <string>

#include "support/Bytes.h"

namespace vexa::test {

class ScriptedNode {
  public:
    ScriptedNode();
    ~ScriptedNode();
    ScriptedNode(const ScriptedNode&) = delete;
    ScriptedNode& operator=(const ScriptedNode&) = delete;

    // What the driver does.
    bool present = true;                  // open fails with ENOENT if not
    std::atomic<int> pluggedIn{1};        // what the link query gives
    std::atomic<bool> queryFails{false};  // with ENOTTY
    std::atomic<int> failWriteAt{0};      // the nth write from now fails with EIO
    std::atomic<int> shortWriteAt{0};     // the nth write from now takes one byte less

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
