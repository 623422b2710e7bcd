#include "model/Runtime.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace vexa::unit {

namespace {

// Blocks all signals of this thread for a scope.
class SignalBlock {
  public:
    SignalBlock() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

  private:
    sigset_t before{};
};

}  // namespace

testkit::Descriptor MakeEvent() {
    testkit::Descriptor event(::eventfd(0, EFD_CLOEXEC));
    if (!event) throw std::system_error(errno, std::generic_category(), "eventfd");
    return event;
}

std::thread StartQuietThread(std::function<void()> body) {
    const SignalBlock block;  // the thread inherits it
    return std::thread([body = std::move(body)] {
        try {
            body();
        } catch (const std::bad_alloc&) {
            std::fputs("vexa-unit: out of memory; a part of the unit is silent now\n", stderr);
        }
    });
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
