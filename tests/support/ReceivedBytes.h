// Collects what a transport's reader thread hands over.
#pragma once

#include <mutex>

#include "foundation/GUtils.h"
#include "support/Bytes.h"

namespace vexa::test {

class ReceivedBytes {
  public:
    // The read callback; `context` is the ReceivedBytes.
    static int Callback(const unsigned char* data, int count, void* context) {
        auto* self = static_cast<ReceivedBytes*>(context);
        const std::scoped_lock lock(self->mutex);
        self->bytes.insert(self->bytes.end(), data, data + count);
        return 0;
    }

    // All bytes so far, once there are at least `count`.
    Bytes Await(std::size_t count) {
        for (;; OSSleep(1)) {
            const std::scoped_lock lock(mutex);
            if (bytes.size() >= count) return bytes;
        }
    }

  private:
    std::mutex mutex;  // guards bytes
    Bytes bytes;
};

}  // namespace vexa::test
