// Collects what a transport's reader thread delivers.
#pragma once

#include <cstddef>
#include <filesystem>
#include <mutex>
#include <thread>

#include "foundation/GUtils.h"
#include "support/Bytes.h"

namespace vexa::test {

// How many threads this process has. A first thread of its own makes a sanitizer start its helper
// before anything is counted.
inline std::size_t ThreadCount() {
    static const bool helped = (std::thread([] {}).join(), true);
    (void)helped;
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

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
