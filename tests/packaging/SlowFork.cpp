// Stands in for fork: the new process begins late, as on a busy machine.
#include <dlfcn.h>
#include <sys/types.h>

#include <chrono>
#include <thread>

extern "C" pid_t fork() noexcept {
    using Fork = pid_t();
    static auto* const original = reinterpret_cast<Fork*>(dlsym(RTLD_NEXT, "fork"));
    const pid_t child = original();
    // Every signal ends a sleep.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
    while (child == 0 && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return child;
}
