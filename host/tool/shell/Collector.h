// Takes what devices and the DAQ send out of the client as it comes, so that a person at a prompt
// or a script that waits loses nothing: the newest blocks are kept, all are counted.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "vexahost/Client.h"

/// Counts of the DAQ's packets.
struct DaqCounts {
    std::uint64_t packets = 0;
    std::uint64_t wrongChecksums = 0;
};

/// Safe from any thread.
class Collector {
  public:
    /// Takes from `client` on a thread of its own until the destructor.
    explicit Collector(vexahost::Client& client);
    ~Collector();
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    /// From here on the blocks of `child` are collected.
    void Add(vexahost::ChildId child);

    void Remove(vexahost::ChildId child);

    /// Forgets all children, and the DAQ's packets and counts.
    void Clear();

    /// The oldest block that was kept and not received; waits for one. kTimeout, kInvalidArgument
    /// for a child that was not added, or the error that the link has ended with.
    vexahost::Expected<vexahost::Block> Receive(vexahost::ChildId child,
                                                vexahost::Milliseconds timeout);
    vexahost::Expected<vexahost::Block> ReceiveDaq(vexahost::Milliseconds timeout);

    [[nodiscard]] DaqCounts Daq() const;

  private:
    using Blocks = std::deque<vexahost::Block>;

    void Run();
    bool TakeFrom(vexahost::ChildId child);
    bool TakeDaq();
    template <typename FindBlocks>
    vexahost::Expected<vexahost::Block> ReceiveFrom(FindBlocks find,
                                                    vexahost::Milliseconds timeout);

    vexahost::Client& client;
    std::atomic<bool> stop{false};
    mutable std::mutex mutex;  // guards the rest of this group
    std::condition_variable changed;
    std::map<vexahost::ChildId, Blocks> children;
    Blocks daqPackets;
    DaqCounts daqCounts;
    std::thread thread;  // last, as it uses all of the above
};
