#include "lib/Inbox.h"

#include <algorithm>

namespace vexahost {

namespace {

using vexa::ControllerCommand;
using vexa::MutexLock;
using SteadyClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kCancelPoll{50};

// Appends to a bounded queue. True when the oldest entry was dropped.
bool Append(std::deque<Block>& queue, Block block, std::size_t capacity) {
    const bool full = queue.size() >= capacity;
    if (full) queue.pop_front();
    queue.push_back(std::move(block));
    return full;
}

bool Is(const Request& request, ControllerCommand command) {
    return request.source == ReplySource::kController &&
           request.command == static_cast<std::uint8_t>(command);
}

// The unit reports that it could not close an unknown child under the open command's number.
bool Answers(const Reply& reply, const Request& request) {
    if (reply.source != request.source || reply.requestSequence != request.sequence) return false;
    if (reply.command == request.command) return true;
    return reply.isError && Is(request, ControllerCommand::kCloseChild) &&
           reply.command == static_cast<std::uint8_t>(ControllerCommand::kOpenChild);
}

Error NotOpen(std::string what) { return {ErrorKind::kNotOpen, std::move(what)}; }

Error NoSuchChild() { return NotOpen("no child with this id is open"); }

}  // namespace

Inbox::Inbox(std::size_t capacity_, std::function<bool()> isCancelled_)
    : capacity(std::max<std::size_t>(capacity_, 1)), isCancelled(std::move(isCancelled_)) {}

void Inbox::WaitForChange(MutexLock& lock, Deadline deadline) {
    if (isCancelled) deadline = std::min(deadline, SteadyClock::now() + kCancelPoll);
    // The end of time would overflow on its way to the system's clock.
    deadline = std::min(deadline, SteadyClock::now() + std::chrono::hours(1));
    changed.wait_until(lock, deadline);
}

std::optional<Error> Inbox::WaitEnds(Deadline deadline, const std::string& what) const {
    if (isCancelled && isCancelled()) return Error{ErrorKind::kCancelled, "interrupted"};
    if (SteadyClock::now() >= deadline) return Error{ErrorKind::kTimeout, what};
    return std::nullopt;
}

// Requests.

Expected<RequestHandle> Inbox::Begin(Request request, Deadline deadline) {
    MutexLock lock(mutex);
    const bool isCommand = request.source == ReplySource::kController;
    if (isCommand) {
        waiting.push_back(&request);
        const auto error = AwaitTurn(lock, request, deadline);
        std::erase(waiting, &request);
        changed.notify_all();  // another may be the first now
        if (error) return *error;
    }
    const auto begun = std::make_shared<Request>(std::move(request));
    begun->sequence = FreeSequence();
    if (isCommand) ApplyBegin(*begun);
    requests.push_back(begun);
    return begun;
}

std::optional<Error> Inbox::AwaitTurn(MutexLock& lock, const Request& request, Deadline deadline) {
    const std::uint64_t mine = connection;
    const bool reopens = Is(request, ControllerCommand::kReopenController);
    bool isNext = false;
    for (;;) {
        if (connection != mine) return formerError;
        if (linkError) return linkError;
        const auto holder = std::ranges::find(requests, ReplySource::kController,
                                              [](const auto& entry) { return entry->source; });
        if (holder != requests.end() && (*holder)->isLate && reopens) {
            requests.erase(holder);
            isNext = true;
            continue;
        }
        isNext = isNext || waiting.front() == &request;
        if (holder == requests.end() && isNext) {
            if (reopens || controllerOpen) return std::nullopt;
            return NotOpen(request.what + ": the controller is not open");
        }
        const std::string why =
            holder != requests.end() && (*holder)->isLate
                ? "the unit has not answered an earlier request yet: " + (*holder)->what
                : "the controller was busy too long for: " + request.what;
        if (auto error = WaitEnds(deadline, why)) return error;
        WaitForChange(lock, deadline);
    }
}

std::uint8_t Inbox::FreeSequence() {
    // Late requests must leave numbers for new ones.
    constexpr std::size_t kMostRequests = 128;
    if (requests.size() >= kMostRequests) {
        const auto oldest =
            std::ranges::find_if(requests, [](const auto& entry) { return entry->isLate; });
        if (oldest != requests.end()) requests.erase(oldest);
    }
    std::uint8_t number = nextSequence;
    for (int tries = 0; tries < 256; ++tries, ++number) {
        const bool isFree = std::ranges::none_of(
            requests, [number](const auto& entry) { return entry->sequence == number; });
        if (isFree) break;
    }
    nextSequence = static_cast<std::uint8_t>(number + 1);
    return number;
}

std::uint8_t Inbox::TakeSequence() {
    const MutexLock lock(mutex);
    return FreeSequence();
}

std::uint8_t Inbox::NextSequence() const {
    const MutexLock lock(mutex);
    return nextSequence;
}

void Inbox::ApplyBegin(Request& request) {
    if (Is(request, ControllerCommand::kReopenController)) {
        CloseAll();
        controllerId = *request.child;
    } else if (Is(request, ControllerCommand::kOpenChild)) {
        // A device may send before the reply is here, so its blocks are kept from now on. The
        // controller's own id is refused by the unit, whose reply comes under that id.
        request.opensChild =
            request.child != controllerId && children.try_emplace(*request.child).second;
    } else if (Is(request, ControllerCommand::kCloseChild) && !request.child) {
        request.child = controllerId;
    }
    request.controller = controllerId;
}

void Inbox::ApplyReply(const Request& request, const Reply& reply) {
    if (Is(request, ControllerCommand::kReopenController)) {
        controllerOpen = true;  // also when the DAQ link could not be opened
    } else if (Is(request, ControllerCommand::kOpenChild)) {
        if (reply.isError && request.opensChild) children.erase(*request.child);
    } else if (Is(request, ControllerCommand::kCloseChild) && !reply.isError) {
        if (request.child == controllerId) {
            CloseAll();
        } else {
            children.erase(*request.child);
        }
    }
}

void Inbox::CloseAll() {
    children.clear();
    controllerOpen = false;
    ForgetDaqPackets();
}

void Inbox::ForgetDaqPackets() {
    daqPackets.clear();
    expectedDaqSequence.reset();
}

Expected<Reply> Inbox::WaitForReply(Request& request, Deadline deadline) {
    MutexLock lock(mutex);
    for (;;) {
        if (request.reply) return *request.reply;
        if (request.error) return *request.error;
        if (linkError) return *linkError;
        if (auto error = WaitEnds(deadline, "no answer in time to: " + request.what)) {
            // An initial sync is asked for again.
            request.isLate = request.source != ReplySource::kInitialSync;
            return *error;
        }
        WaitForChange(lock, deadline);
    }
}

void Inbox::Withdraw(Request& request) {
    const MutexLock lock(mutex);
    const auto erased = std::erase_if(requests, [&](const auto& e) { return e.get() == &request; });
    if (erased > 0 && request.opensChild) children.erase(*request.child);
    changed.notify_all();
}

bool Inbox::DeliverReply(Reply reply) {
    const MutexLock lock(mutex);
    const auto found =
        std::ranges::find_if(requests, [&](const auto& entry) { return Answers(reply, *entry); });
    if (found == requests.end()) return false;
    const RequestHandle request = *found;
    requests.erase(found);
    ApplyReply(*request, reply);
    const bool isAwaited = !request->isLate;
    request->reply = std::move(reply);
    changed.notify_all();
    return isAwaited;
}

void Inbox::ForgetLateRequests() {
    const MutexLock lock(mutex);
    for (const auto& request : requests) {
        if (request->isLate && request->opensChild) children.erase(*request->child);
    }
    std::erase_if(requests, [](const auto& request) { return request->isLate; });
    changed.notify_all();
}

// Children and the DAQ.

bool Inbox::IsController(ChildId child) const {
    const MutexLock lock(mutex);
    return child == controllerId || child == 0;
}

bool Inbox::IsOpen(ChildId child) const {
    const MutexLock lock(mutex);
    return children.contains(child);
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
    if (block.checksumRight) {
        CountDaqSequence(block.sequence);
    } else {
        ++counts.daqWrongChecksums;
        expectedDaqSequence.reset();  // its number may be what is wrong
    }
    if (Append(daqPackets, std::move(block), capacity)) ++counts.daqDropped;
    changed.notify_all();
}

void Inbox::NoteDaqSequence(std::uint8_t sequence) {
    const MutexLock lock(mutex);
    CountDaqSequence(sequence);
}

void Inbox::CountDaqSequence(std::uint8_t sequence) {
    if (expectedDaqSequence && *expectedDaqSequence != sequence) ++counts.daqSequenceGaps;
    expectedDaqSequence = static_cast<std::uint8_t>(sequence + 1);
}

Expected<Received> Inbox::Receive(std::span<const ChildId> wanted, bool withDaq,
                                  Deadline deadline) {
    MutexLock lock(mutex);
    const std::uint64_t mine = connection;
    for (;;) {
        if (connection != mine) return formerError;
        std::deque<Block>* oldest = withDaq ? &daqPackets : nullptr;
        std::optional<ChildId> from;
        for (const ChildId child : wanted) {
            const auto found = children.find(child);
            if (found == children.end()) return NoSuchChild();
            auto& blocks = found->second.blocks;
            if (blocks.empty()) continue;
            if (oldest != nullptr && !oldest->empty() &&
                oldest->front().receivedAt <= blocks.front().receivedAt) {
                continue;
            }
            oldest = &blocks;
            from = child;
        }
        if (oldest != nullptr && !oldest->empty()) {
            Received received{from, std::move(oldest->front())};
            oldest->pop_front();
            return received;
        }
        if (linkError) return *linkError;
        if (auto error = WaitEnds(deadline, "nothing came in time")) return *error;
        WaitForChange(lock, deadline);
    }
}

// The link.

void Inbox::Fail(const Error& error) {
    const MutexLock lock(mutex);
    if (!linkError) linkError = error;
    changed.notify_all();
}

void Inbox::Restart() {
    const MutexLock lock(mutex);
    if (!linkError) return;
    CloseAll();
    formerError = *linkError;
    for (const auto& request : requests) request->error = formerError;
    requests.clear();
    controllerId = 0;
    linkError.reset();
    ++connection;
    changed.notify_all();
}

std::uint64_t Inbox::Connection() const {
    const MutexLock lock(mutex);
    return connection;
}

std::optional<Error> Inbox::LinkError() const {
    const MutexLock lock(mutex);
    return linkError;
}

std::optional<Error> Inbox::AwaitLinkError(Deadline deadline) {
    MutexLock lock(mutex);
    while (!linkError && SteadyClock::now() < deadline) WaitForChange(lock, deadline);
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
    statistics.daqSequenceGaps = counts.daqSequenceGaps;
}

}  // namespace vexahost
