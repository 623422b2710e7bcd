// The byte stream to and from a unit.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "vexahost/Expected.h"

namespace vexahost {

using Deadline = std::chrono::steady_clock::time_point;

// Now plus `timeout`; the end of time when that is later than the clock can tell.
[[nodiscard]] Deadline DeadlineAfter(std::chrono::milliseconds timeout);

// How long an attempt to connect may go on.
struct ConnectLimits {
    Deadline deadline = Deadline::max();
    std::function<bool()> isCancelled;  // asked about every 50 ms; empty: it never is

    [[nodiscard]] bool IsCancelled() const { return isCancelled && isCancelled(); }
};

// What a unit puts before the chunks that it sends.
enum class Framing {
    kFrameHeaders,  // 8-byte headers (FrameReader.h): the USB link and virtual units
    kNone,          // nothing: TCP and serial links
};

// One thread may read while another writes. Read and WriteAll: one thread at a time each.
class Transport {
  public:
    virtual ~Transport() = default;

    // Waits for bytes and stores them in `buffer`. Returns their number, 0 when none came within
    // `timeout`; kLinkLost when the connection has ended.
    virtual Expected<std::size_t> Read(std::span<std::uint8_t> buffer,
                                       std::chrono::milliseconds timeout) = 0;

    // Sends `bytes` as fast as the unit accepts them. Returns how many were sent: fewer than all
    // when `deadline` came first. kLinkLost when the connection has ended.
    virtual Expected<std::size_t> Write(std::span<const std::uint8_t> bytes, Deadline deadline) = 0;

    // Sends all of `bytes`, or returns kTimeout: then some may have been sent, and an initial sync
    // brings the unit's parser in step again.
    Expected<Done> WriteAll(std::span<const std::uint8_t> bytes, Deadline deadline);

    // What the unit puts before what it sends.
    [[nodiscard]] virtual Framing UnitFraming() const = 0;

    // Ends the connection. A waiting Read returns kLinkLost. Any thread, any number of times.
    virtual void Close() = 0;
};

// Makes a new connection to a unit within the limits, for example with
// SocketTransport::ConnectUnit. Called for each connection, on the thread that asks for it.
using TransportFactory =
    std::function<Expected<std::unique_ptr<Transport>>(const ConnectLimits& limits)>;

}  // namespace vexahost
