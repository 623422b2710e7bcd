// Shows the packet log what passes over the link.
#pragma once

#include "vexahost/SessionRecorder.h"

namespace vexahost::page {

using vexahost::LinkTap;

// Makes connections as `factory` does, and shows `tap` what passes over them. `tap` must outlive
// them.
TransportFactory Tapped(TransportFactory factory, LinkTap& tap);

// The same, and records it.
TransportFactory Recorded(TransportFactory factory, std::shared_ptr<SessionRecorder> recorder);

}  // namespace vexahost::page
