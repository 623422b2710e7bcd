// Threads that take no signals: those of the process are for the program that runs on the unit.
#pragma once

#include <functional>
#include <thread>

namespace vexa::unit {

// Starts `body` on a thread in which every signal is blocked.
[[nodiscard]] std::thread StartQuietThread(std::function<void()> body);

// Waits for a thread that has been told to end. Called on that thread itself, by a callback that it
// runs, it only lets go: the thread ends when the callback returns.
void AwaitEnd(std::thread ending);

}  // namespace vexa::unit
