// Shows what passes over the link while a session goes on.
#pragma once

#include <memory>

#include "vexahost/Recording.h"
#include "vexahost/Transport.h"

namespace vexahost {

// Is shown what passes over the connections of a unit, frame by frame, and each beginning and end
// of one (kCableIn, kCableOut). Any thread.
class LinkTap {
  public:
    LinkTap() = default;
    virtual ~LinkTap() = default;
    LinkTap(const LinkTap&) = delete;
    LinkTap& operator=(const LinkTap&) = delete;

    // With the time of the call; the bytes are borrowed. What is sent is shown before it goes out,
    // so that no answer comes before its request.
    virtual void Show(const CapturedFrame& frame) = 0;
};

// Makes connections as `connect` does, and shows `tap` what passes over them.
[[nodiscard]] TransportFactory Tapped(TransportFactory connect, std::shared_ptr<LinkTap> tap);

}  // namespace vexahost
