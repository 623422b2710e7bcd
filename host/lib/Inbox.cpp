#include "lib/Inbox.h"

#include <algorithm>

#include "vexahost/protocol/Commands.h"

namespace vexahost {

namespace {

using vexa::MutexLock;
using SteadyClock = std::chrono::steady_clock;

// Appends to a bounded queue. True when the oldest entry was dropped.
bool Append(std::deque<Block>& queue, Block block, std::size_t capacity) {
    const bool full = queue.size() >= capacity;
    if (full) queue.pop_front();
    queue.push_back(std::move(block));
    return full;
}

// The unit reports that it could not close an unknown child under the open command's number.
bool Answers(const Reply& reply, const PendingRequest& request) {
    if (reply.source != request.source || reply.requestSequence != request.sequence) return false;
    if (reply.command == request.command) return true;
    return reply.source == ReplySource::kController && reply.isError &&
           request.command == static_cast<std::uint8_t>(vexa::ControllerCommand::kCloseChild) &&
           reply.command == static_cast<std::uint8_t>(vexa::ControllerCommand::kOpenChild);
}

}  // namespace

Inbox::Inbox(std::size_t capacity_) : capacity(std::max<std::size_t>(capacity_, 1)) {}

void Inbox::AddRequest(PendingRequest& request) {
    const MutexLock lock(mutex);
    request.connection = connection;
    requests.push_back(&request);
}

void Inbox::RemoveRequest(PendingRequest& request) {
    const MutexLock lock(mutex);
    std::erase(requests, &request);
}

Expected<Reply> Inbox::WaitForReply(PendingRequest& request, Deadline deadline,
                                    const std::string& what) {
    MutexLock lock(mutex);
    for (;;) {
        if (request.reply) return *request.reply;
        if (request.connection != connection) return formerError;
        if (linkError) return *linkError;
        if (SteadyClock::now() >= deadline) {
            return Error{ErrorKind::kTimeout, "no answer in time to: " + what};
        }
        changed.wait_until(lock, deadline);
    }
}

bool Inbox::DeliverReply(Reply reply) {
    const MutexLock lock(mutex);
    for (PendingRequest* request : requests) {
        if (request->reply || request->connection != connection) continue;
        if (!Answers(reply, *request)) continue;
        request->reply = std::move(reply);
        changed.notify_all();
        return true;
    }
    return false;
}

bool Inbox::OpenChild(ChildId child) {
    const MutexLock lock(mutex);
    return children.try_emplace(child).second;
}

void Inbox::RemoveChild(ChildId child) {
    const MutexLock lock(mutex);
    children.erase(child);
    changed.notify_all();
}

void Inbox::RemoveAllChildren() {
    const MutexLock lock(mutex);
    children.clear();
    changed.notify_all();
}

bool Inbox::DeliverBlock(ChildId child, Block block) {
    const MutexLock lock(mutex);
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
    const MutexLock lock(mutex);
    ++counts.daqPackets;
    counts.daqBytes += block.bytes.size();
    if (!block.checksumRight) ++counts.daqWrongChecksums;
    if (Append(daqPackets, std::move(block), capacity)) ++counts.daqDropped;
    changed.notify_all();
}

std::deque<Block>* Inbox::FindQueue(std::optional<ChildId> child) {
    if (!child) return &daqPackets;
    const auto found = children.find(*child);
    return found == children.end() ? nullptr : &found->second.blocks;
}

Expected<Block> Inbox::ReceiveFrom(std::optional<ChildId> child, Deadline deadline) {
    MutexLock lock(mutex);
    const std::uint64_t mine = connection;
    for (;;) {
        if (connection != mine) return formerError;
        std::deque<Block>* const queue = FindQueue(child);
        if (queue == nullptr) {
            return Error{ErrorKind::kInvalidArgument, "no child with this id is open"};
        }
        if (!queue->empty()) {
            Block block = std::move(queue->front());
            queue->pop_front();
            return block;
        }
        if (linkError) return *linkError;
        if (SteadyClock::now() >= deadline) {
            return Error{ErrorKind::kTimeout, "nothing came in time"};
        }
        changed.wait_until(lock, deadline);
    }
}

Expected<Block> Inbox::Receive(ChildId child, Deadline deadline) {
    return ReceiveFrom(child, deadline);
}

Expected<Block> Inbox::ReceiveDaq(Deadline deadline) { return ReceiveFrom(std::nullopt, deadline); }

void Inbox::Fail(const Error& error) {
    const MutexLock lock(mutex);
    if (!linkError) linkError = error;
    changed.notify_all();
}

void Inbox::Restart() {
    const MutexLock lock(mutex);
    if (!linkError) return;
    children.clear();
    daqPackets.clear();
    formerError = *linkError;
    linkError.reset();
    ++connection;
    changed.notify_all();
}

std::optional<Error> Inbox::LinkError() const {
    const MutexLock lock(mutex);
    return linkError;
}

std::optional<ChildStatistics> Inbox::StatisticsOf(ChildId child) const {
    const MutexLock lock(mutex);
    const auto found = children.find(child);
    if (found == children.end()) return std::nullopt;
    return found->second.statistics;
}

void Inbox::AddDaqCounts(ClientStatistics& statistics) const {
    const MutexLock lock(mutex);
    statistics.daqPackets = counts.daqPackets;
    statistics.daqBytes = counts.daqBytes;
    statistics.daqWrongChecksums = counts.daqWrongChecksums;
    statistics.daqDropped = counts.daqDropped;
}

}  // namespace vexahost
