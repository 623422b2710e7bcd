#include "Collector.h"

#include <algorithm>
#include <vector>

#include "../Interrupt.h"

using vexahost::Block;
using vexahost::ChildId;
using vexahost::Error;
using vexahost::ErrorKind;
using vexahost::Expected;
using vexahost::Milliseconds;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kKept = 1000;  // blocks of each child
constexpr Milliseconds kPause{5};
constexpr Milliseconds kLookUp{50};  // how soon a wait sees that it is interrupted

void Keep(std::deque<Block>& blocks, Block block) {
    if (blocks.size() == kKept) blocks.pop_front();
    blocks.push_back(std::move(block));
}

}  // namespace

Collector::Collector(vexahost::Client& connected) : client(connected), thread([this] { Run(); }) {}

Collector::~Collector() {
    stop = true;
    thread.join();
}

void Collector::Run() {
    while (!stop) {
        std::vector<ChildId> ids;
        {
            const std::lock_guard lock(mutex);
            for (const auto& [id, blocks] : children) ids.push_back(id);
        }
        bool any = TakeDaq();
        for (const ChildId id : ids) any = TakeFrom(id) || any;
        if (any) {
            changed.notify_all();
        } else {
            std::this_thread::sleep_for(kPause);
        }
    }
}

bool Collector::TakeFrom(ChildId child) {
    bool any = false;
    while (auto block = client.Receive(child, Milliseconds{0})) {
        const std::lock_guard lock(mutex);
        const auto found = children.find(child);
        if (found == children.end()) return any;
        Keep(found->second, std::move(*block));
        any = true;
    }
    return any;
}

bool Collector::TakeDaq() {
    bool any = false;
    while (auto packet = client.ReceiveDaq(Milliseconds{0})) {
        const std::lock_guard lock(mutex);
        ++daqCounts.packets;
        if (!packet->checksumRight) ++daqCounts.wrongChecksums;
        Keep(daqPackets, std::move(*packet));
        any = true;
    }
    return any;
}

void Collector::Add(ChildId child) {
    const std::lock_guard lock(mutex);
    children.try_emplace(child);
}

void Collector::Remove(ChildId child) {
    const std::lock_guard lock(mutex);
    children.erase(child);
}

void Collector::Clear() {
    const std::lock_guard lock(mutex);
    children.clear();
    daqPackets.clear();
    daqCounts = {};
}

template <typename FindBlocks>
Expected<Block> Collector::ReceiveFrom(FindBlocks find, Milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    std::unique_lock lock(mutex);
    for (;;) {
        Blocks* const blocks = find();
        if (blocks == nullptr) return Error{ErrorKind::kInvalidArgument, "no such child is open"};
        if (!blocks->empty()) {
            Block block = std::move(blocks->front());
            blocks->pop_front();
            return block;
        }
        if (const auto error = client.LinkError()) return *error;
        const auto now = Clock::now();
        if (now >= deadline || IsInterrupted()) {
            return Error{ErrorKind::kTimeout, "nothing came in time"};
        }
        changed.wait_until(lock, std::min(deadline, now + kLookUp));
    }
}

Expected<Block> Collector::Receive(ChildId child, Milliseconds timeout) {
    return ReceiveFrom(
        [&]() -> Blocks* {
            const auto found = children.find(child);
            return found == children.end() ? nullptr : &found->second;
        },
        timeout);
}

Expected<Block> Collector::ReceiveDaq(Milliseconds timeout) {
    return ReceiveFrom([&] { return &daqPackets; }, timeout);
}

DaqCounts Collector::Daq() const {
    const std::lock_guard lock(mutex);
    return daqCounts;
}
