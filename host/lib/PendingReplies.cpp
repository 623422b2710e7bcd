#include "PendingReplies.h"

#include <algorithm>

#include "vexahost/protocol/Commands.h"

namespace vexahost {

namespace {

// The unit reports that it could not close an unknown child under the open command's number.
bool Answers(const Reply& reply, const PendingRequest& request) {
    if (reply.source != request.source || reply.requestSequence != request.sequence) return false;
    if (reply.command == request.command) return true;
    return reply.source == ReplySource::kController && reply.isError &&
           request.command == static_cast<std::uint8_t>(vexa::ControllerCommand::kCloseChild) &&
           reply.command == static_cast<std::uint8_t>(vexa::ControllerCommand::kOpenChild);
}

}  // namespace

void PendingReplies::Add(PendingRequest& request) {
    const std::lock_guard lock(mutex);
    request.connection = connection;
    requests.push_back(&request);
}

void PendingReplies::Remove(PendingRequest& request) {
    const std::lock_guard lock(mutex);
    std::erase(requests, &request);
}

Expected<Reply> PendingReplies::Wait(PendingRequest& request, Deadline deadline,
                                     const std::string& what) {
    std::unique_lock lock(mutex);
    const auto isOver = [&] { return request.connection != connection; };
    changed.wait_until(lock, deadline, [&] { return request.reply || linkError || isOver(); });
    if (request.reply) return *request.reply;
    if (isOver()) return lastError;
    if (linkError) return *linkError;
    return Error{ErrorKind::kTimeout, "no answer in time to: " + what};
}

bool PendingReplies::Deliver(Reply reply) {
    const std::lock_guard lock(mutex);
    for (PendingRequest* request : requests) {
        if (request->reply || request->connection != connection) continue;
        if (!Answers(reply, *request)) continue;
        request->reply = std::move(reply);
        changed.notify_all();
        return true;
    }
    return false;
}

void PendingReplies::Fail(const Error& error) {
    const std::lock_guard lock(mutex);
    if (!linkError) linkError = error;
    changed.notify_all();
}

void PendingReplies::Restart() {
    const std::lock_guard lock(mutex);
    if (!linkError) return;
    lastError = *linkError;
    linkError.reset();
    ++connection;
    changed.notify_all();
}

std::optional<Error> PendingReplies::LinkError() const {
    const std::lock_guard lock(mutex);
    return linkError;
}

}  // namespace vexahost
