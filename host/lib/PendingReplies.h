// Requests that wait for their replies.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vexahost/Expected.h"
#include "vexahost/protocol/InitialSync.h"

namespace vexahost {

enum class ReplySource { kInitialSync, kMultiplexer, kController };

/// A reply of the unit, as far as it takes part in matching, and its bytes.
struct Reply {
    ReplySource source;
    bool isError;
    std::uint8_t command;
    std::uint8_t requestSequence;
    std::uint8_t code;
    std::vector<std::uint8_t> bytes;
};

/// What a request waits for. Lives on the requester's stack between Add and Wait.
struct PendingRequest {
    ReplySource source;
    std::uint8_t command;
    std::uint8_t sequence;
    std::optional<Reply> reply;    // guarded by the table's mutex
    std::uint64_t connection = 0;  // that it was added in
};

/// Safe from any thread.
class PendingReplies {
  public:
    using Deadline = std::chrono::steady_clock::time_point;

    /// From here on replies to `request` are kept for it. To be called before it is sent.
    void Add(PendingRequest& request);

    /// Takes `request` out; its reply, if one came, stays.
    void Remove(PendingRequest& request);

    /// Waits for the reply. kTimeout, naming `what`, or the error that the link ended with.
    Expected<Reply> Wait(PendingRequest& request, Deadline deadline, const std::string& what);

    /// Hands a reply to its request. False when none waits for it.
    bool Deliver(Reply reply);

    /// Ends all waits, present and to come, with `error`; the first call counts.
    void Fail(const Error& error);

    /// After Fail: lets new requests wait again. Those that waited at Fail still end with its
    /// error.
    void Restart();

    /// The error that Fail was called with, until Restart.
    [[nodiscard]] std::optional<Error> LinkError() const;

  private:
    mutable std::mutex mutex;  // guards all below, and `reply` of the requests
    std::condition_variable changed;
    std::vector<PendingRequest*> requests;
    std::uint64_t connection = 0;  // counts the calls of Restart
    std::optional<Error> linkError;
    Error lastError{};  // of the connection before this one
};

}  // namespace vexahost
