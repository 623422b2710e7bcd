// A transport that shows what passes it.
#pragma once

#include <memory>

#include "vexahost/Recording.h"
#include "vexahost/Transport.h"

namespace vexahost::page {

// Is shown what passes the connections of one unit, frame by frame, and each beginning and end of
// one. Any thread; the frame's bytes are borrowed.
class LinkTap {
  public:
    virtual ~LinkTap() = default;
    virtual void Show(const CapturedFrame& frame) = 0;
};

// Makes connections as `factory` does, and shows `tap` what passes them. `tap` must outlive them.
TransportFactory Tapped(TransportFactory factory, LinkTap& tap);

}  // namespace vexahost::page
