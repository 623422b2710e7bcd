#include "Inbox.h"

#include <algorithm>
#include <string>

namespace vexahost {

namespace {

// Appends to a bounded queue. True when the oldest entry had to go for it.
bool Append(std::deque<Block>& queue, Block block, std::size_t capacity) {
    const bool full = queue.size() >= capacity;
    if (full) queue.pop_front();
    queue.push_back(std::move(block));
    return full;
}

}  // namespace

Inbox::Inbox(std::size_t queueCapacity) : capacity(std::max<std::size_t>(queueCapacity, 1)) {}

bool Inbox::Open(ChildId child) {
    const std::lock_guard lock(mutex);
    return children.try_emplace(child).second;
}

void Inbox::Remove(ChildId child) {
    const std::lock_guard lock(mutex);
    children.erase(child);
    changed.notify_all();
}

void Inbox::RemoveAll() {
    const std::lock_guard lock(mutex);
    children.clear();
    changed.notify_all();
}

bool Inbox::Deliver(ChildId child, Block block) {
    const std::lock_guard lock(mutex);
    const auto found = children.find(child);
    if (found == children.end()) return false;
    Child& entry = found->second;
    if (block.sequence != entry.expectedSequence) ++entry.statistics.sequenceGaps;
    entry.expectedSequence = static_cast<std::uint8_t>(block.sequence + 1);
    ++entry.statistics.blocks;
    entry.statistics.bytes += block.bytes.size();
    if (Append(entry.blocks, std::move(block), capacity)) ++entry.statistics.dropped;
    changed.notify_all();
    return true;
}

void Inbox::DeliverDaq(Block block) {
    const std::lock_guard lock(mutex);
    if (Append(daqPackets, std::move(block), capacity)) ++daqDropped;
    changed.notify_all();
}

template <typename FindQueue>
Expected<Block> Inbox::TakeFrom(FindQueue find, Deadline deadline) {
    std::unique_lock lock(mutex);
    const std::uint64_t mine = connection;
    std::deque<Block>* queue = nullptr;
    changed.wait_until(lock, deadline, [&] {
        queue = find();
        return queue == nullptr || !queue->empty() || linkError || connection != mine;
    });
    if (connection != mine) return lastError;
    if (queue == nullptr)
        return Error{ErrorKind::kInvalidArgument, "no child with this id is open"};
    if (!queue->empty()) {
        Block block = std::move(queue->front());
        queue->pop_front();
        return block;
    }
    if (linkError) return *linkError;
    return Error{ErrorKind::kTimeout, "nothing came in time"};
}

Expected<Block> Inbox::Receive(ChildId child, Deadline deadline) {
    return TakeFrom(
        [&]() -> std::deque<Block>* {
            const auto found = children.find(child);
            return found == children.end() ? nullptr : &found->second.blocks;
        },
        deadline);
}

Expected<Block> Inbox::ReceiveDaq(Deadline deadline) {
    return TakeFrom([&] { return &daqPackets; }, deadline);
}

void Inbox::Fail(const Error& error) {
    const std::lock_guard lock(mutex);
    if (!linkError) linkError = error;
    changed.notify_all();
}

void Inbox::Restart() {
    const std::lock_guard lock(mutex);
    if (!linkError) return;
    children.clear();
    daqPackets.clear();
    lastError = *linkError;
    linkError.reset();
    ++connection;
    changed.notify_all();
}

std::optional<ChildStatistics> Inbox::StatisticsOf(ChildId child) const {
    const std::lock_guard lock(mutex);
    const auto found = children.find(child);
    if (found == children.end()) return std::nullopt;
    return found->second.statistics;
}

std::uint64_t Inbox::DaqDropped() const {
    const std::lock_guard lock(mutex);
    return daqDropped;
}

}  // namespace vexahost
