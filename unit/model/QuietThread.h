// Threads that take no signals: those of the process are for the program that runs on the unit.
#pragma once

#include <functional>
#include <thread>

namespace vexa::unit {

// Starts `body` on a thread in which every signal is blocked.
[[nodiscard]] std::thread StartQuietThread(std::function<void()> body);

}  // namespace vexa::unit
