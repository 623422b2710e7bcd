#include "model/Runtime.h"

#include <unistd.h>

#include <csignal>

namespace vexa::unit {

std::thread StartQuietThread(std::function<void()> body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread(std::move(body));  // inherits the mask
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

void AwaitEnd(std::thread ending) {
    if (ending.get_id() == std::this_thread::get_id()) {
        ending.detach();
    } else {
        ending.join();
    }
}

void Signal(const testkit::Descriptor& event) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(event.Get(), &one, sizeof one);
}

void ClearSignal(const testkit::Descriptor& event) {
    std::uint64_t signals = 0;
    [[maybe_unused]] const auto got = ::read(event.Get(), &signals, sizeof signals);
}

}  // namespace vexa::unit
