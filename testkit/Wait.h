// Waiting for a condition that nothing signals.
#pragma once

#include <chrono>
#include <thread>

namespace vexa::testkit {

using Milliseconds = std::chrono::milliseconds;

// Checks every few milliseconds until `condition()` holds; false when it still does not after
// `timeout`.
template <typename Condition>
[[nodiscard]] bool WaitUntil(Milliseconds timeout, Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(Milliseconds(2));
    }
    return true;
}

}  // namespace vexa::testkit
