// The byte stream to and from a unit.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

#include "vexahost/Expected.h"

namespace vexahost {

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

    // Sends all of `bytes`. kTimeout when the unit does not accept them within `timeout`; some may
    // have been sent, and an initial sync brings the unit's parser in step again. kLinkLost when
    // the connection has ended.
    virtual Expected<Done> WriteAll(std::span<const std::uint8_t> bytes,
                                    std::chrono::milliseconds timeout) = 0;

    // What the unit puts before what it sends.
    [[nodiscard]] virtual Framing UnitFraming() const = 0;

    // Ends the connection. A waiting Read returns kLinkLost. Any thread, any number of times.
    virtual void Close() = 0;
};

}  // namespace vexahost
