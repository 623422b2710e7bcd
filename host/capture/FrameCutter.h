// Cuts what a unit sends into frames, for recording.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "vexahost/FrameReader.h"
#include "vexahost/Transport.h"

namespace vexahost {

/// Used by one thread.
class FrameCutter {
  public:
    /// Called with each frame, its 8-byte header included.
    using Sink = std::function<void(std::span<const std::uint8_t>)>;

    /// For a unit whose link carries no frame headers, each piece becomes a frame of its own.
    FrameCutter(Framing framing_, Sink sink_) : framing(framing_), sink(std::move(sink_)) {}

    /// The next piece of the unit's byte stream. From a header that is none on, each piece goes to
    /// the sink as it comes.
    void Take(std::span<const std::uint8_t> piece);

    /// The link has ended: the sink gets what has come of an unfinished frame.
    void Finish();

  private:
    void WrapPiece(std::span<const std::uint8_t> piece);

    const Framing framing;
    const Sink sink;
    std::vector<std::uint8_t> frame;  // as far as it has come
    bool violated = false;
};

}  // namespace vexahost
