// Waiting for what no signal tells of.
#pragma once

#include <chrono>
#include <thread>

namespace vexa::soak {

// Looks again and again until `holds()`; false when it does not within `limit`.
template <typename Condition>
[[nodiscard]] bool WaitUntil(std::chrono::milliseconds limit, Condition holds) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!holds()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace vexa::soak
