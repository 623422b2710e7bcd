// The byte stream to and from a unit.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

#include "vexahost/Expected.h"

namespace vexahost {

/// What a unit puts around the chunks that it sends.
enum class Framing {
    kFrameHeaders,  // the 8-byte header of FrameReader.h: the USB link and virtual units
    kNone,          // nothing: TCP and serial links
};

/// One thread may read while another writes; each side is used by one thread at a time.
class Transport {
  public:
    virtual ~Transport() = default;

    /// Waits for bytes and puts what has come into `buffer`. Gives the number of bytes, 0 when none
    /// came within `timeout`; kLinkLost when the connection has ended.
    virtual Expected<std::size_t> Read(std::span<std::uint8_t> buffer,
                                       std::chrono::milliseconds timeout) = 0;

    /// Sends all of `bytes`. kTimeout when the unit does not take them within `timeout` (some may
    /// have gone out: an initial sync sets the unit's parser right again); kLinkLost when the
    /// connection has ended.
    virtual Expected<Done> WriteAll(std::span<const std::uint8_t> bytes,
                                    std::chrono::milliseconds timeout) = 0;

    /// What the unit at the other end puts around what it sends.
    [[nodiscard]] virtual Framing UnitFraming() const = 0;

    /// Ends the connection; from any thread, also twice. A Read that is waiting returns kLinkLost.
    virtual void Close() = 0;
};

}  // namespace vexahost
