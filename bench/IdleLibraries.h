// libVEXA and libvexcri that do nothing: one device "sensor" of type 8 attached, writes that cost a
// call, sessions that answer nothing.
#pragma once

#include "VEXA.h"

namespace vexa::bench {

// The read callback and context of the stream opened last.
struct OpenedStream {
    VEXA_ReadCallback callback = nullptr;
    void* context = nullptr;
};
OpenedStream LastStream();

}  // namespace vexa::bench
