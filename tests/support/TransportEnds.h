// What is at both ends of a transport: the peer that sends and receives, and what the transport's
// reader thread delivers.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "foundation/GUtils.h"
#include "foundation/Mutex.h"
#include "support/Bytes.h"
#include "testkit/Descriptor.h"

namespace vexa::test {

// The other end of a byte stream.
class Peer {
  public:
    explicit Peer(int descriptor_) : descriptor(descriptor_) { EXPECT_TRUE(descriptor); }

    [[nodiscard]] int Get() const { return descriptor.Get(); }
    void Send(const Bytes& bytes) const {
        EXPECT_EQ(write(Get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // Waits for `count` bytes; fewer when the stream ends.
    [[nodiscard]] Bytes Receive(std::size_t count) const {
        Bytes bytes(count);
        std::size_t received = 0;
        for (ssize_t more = 1; received < count && more > 0;) {
            more = read(Get(), bytes.data() + received, count - received);
            if (more > 0) received += static_cast<std::size_t>(more);
        }
        bytes.resize(received);
        return bytes;
    }

  private:
    testkit::Descriptor descriptor;
};

// Any thread.
class ReceivedBytes {
  public:
    // A read callback; `context` is the ReceivedBytes.
    static int Callback(const unsigned char* data, int count, void* context) {
        auto* self = static_cast<ReceivedBytes*>(context);
        const MutexLock lock(self->mutex);
        self->bytes.insert(self->bytes.end(), data, data + count);
        return 0;
    }

    // All bytes so far, once there are at least `count`.
    Bytes Await(std::size_t count) {
        for (;; OSSleep(1)) {
            const MutexLock lock(mutex);
            if (bytes.size() >= count) return bytes;
        }
    }

  private:
    Mutex mutex;
    Bytes bytes VEXA_GUARDED_BY(mutex);
};

// How many threads this process has. A first thread of its own makes a sanitizer start its helper
// before anything is counted.
inline std::size_t ThreadCount() {
    static const bool helped = (std::thread([] {}).join(), true);
    (void)helped;
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

}  // namespace vexa::test
