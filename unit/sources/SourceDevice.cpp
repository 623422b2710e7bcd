#include "sources/SourceDevice.h"

#include <poll.h>

#include <array>
#include <cstdio>
#include <deque>
#include <utility>

namespace vexa::unit {

namespace {

constexpr std::size_t kMaxQueuedWrites = 1000;
constexpr std::chrono::seconds kPatience{2};  // with a driver, before a line is printed

}  // namespace

// One use of the source, from the first receiver to the last.
class SourceDevice::Use final : public SourceLine {
  public:
    explicit Use(SourceDevice& device_) : device(device_), wake(MakeEvent()) {}

    void End() {
        {
            const MutexLock lock(mutex);
            ending = true;
        }
        Signal(wake);
    }

    [[nodiscard]] bool Write(std::span<const std::uint8_t> bytes) {
        {
            const MutexLock lock(mutex);
            if (writes.size() >= kMaxQueuedWrites) return false;
            writes.emplace_back(bytes.begin(), bytes.end());
        }
        Signal(wake);
        return true;
    }

    void Pass(std::span<const std::uint8_t> block) override { device.Pass(this, block); }
    void Tell(const std::string& text) override { device.Tell(text); }
    [[nodiscard]] std::vector<std::vector<std::uint8_t>> TakeWrites() override {
        const MutexLock lock(mutex);
        return std::exchange(writes, {});
    }
    [[nodiscard]] bool IsEnding() override {
        const MutexLock lock(mutex);
        return ending;
    }
    short Wait(int descriptor, short events, int timeoutMs) override {
        std::array<pollfd, 2> entries{{{wake.Get(), POLLIN, 0}, {descriptor, events, 0}}};
        if (::poll(entries.data(), entries.size(), timeoutMs) <= 0) return 0;
        if (entries[0].revents != 0) ClearSignal(wake);
        return entries[1].revents;
    }

  private:
    SourceDevice& device;
    const testkit::Descriptor wake;
    Mutex mutex;
    std::vector<std::vector<std::uint8_t>> writes VEXA_GUARDED_BY(mutex);
    bool ending VEXA_GUARDED_BY(mutex) = false;
};

SourceDevice::SourceDevice(std::string name_, Make make_)
    : name(std::move(name_)), make(std::move(make_)) {}

std::uint32_t SourceDevice::Join(SourceReceiver receiver) {
    const MutexLock lock(mutex);
    if (use == nullptr) {
        const auto begun = std::make_shared<Use>(*this);
        StartQuietThread([self = shared_from_this(), begun] { self->Run(begun); }).detach();
        use = begun;
    }
    receivers.emplace(++lastReceiver, std::move(receiver));
    return lastReceiver;
}

void SourceDevice::Leave(std::uint32_t receiver) {
    {
        const MutexLock lock(mutex);
        receivers.erase(receiver);
        // Under the lock, so that a use that is about to wait for an earlier one sees it.
        if (receivers.empty() && use) std::exchange(use, nullptr)->End();
    }
    released.notify_all();
}

bool SourceDevice::Write(std::span<const std::uint8_t> bytes) {
    std::shared_ptr<Use> current;
    {
        const MutexLock lock(mutex);
        current = use;
    }
    return current && current->Write(bytes);
}

bool SourceDevice::AwaitEnd(std::chrono::milliseconds timeout) {
    const TimePoint end = Clock::now() + timeout;
    MutexLock lock(mutex);
    while (isRead) {
        if (released.wait_until(lock, end) == std::cv_status::timeout) return !isRead;
    }
    return true;
}

void SourceDevice::Tell(const std::string& text) const {
    std::fprintf(stderr, "vexa-unit: %s: %s\n", name.c_str(), text.c_str());
}

bool SourceDevice::Acquire(const std::shared_ptr<Use>& wanting) {
    MutexLock lock(mutex);
    const TimePoint patience = Clock::now() + kPatience;
    bool told = false;
    while (isRead && !wanting->IsEnding()) {
        if (told) {
            released.wait(lock);
        } else if (released.wait_until(lock, patience) == std::cv_status::timeout) {
            told = true;
            Tell("still busy in its driver since the last use; waiting");
        }
    }
    if (wanting->IsEnding()) return false;
    return isRead = true;
}

void SourceDevice::Run(const std::shared_ptr<Use>& running) {
    if (!Acquire(running)) return;
    try {
        make()->Run(*running);
    } catch (const SourceError& error) {
        if (!running->IsEnding()) Tell(error.what());
        Unplug(running.get());
    } catch (const std::system_error& error) {
        Tell(error.what());
        Unplug(running.get());
    }
    {
        const MutexLock lock(mutex);
        isRead = false;
    }
    released.notify_all();
}

void SourceDevice::Pass(const Use* from, std::span<const std::uint8_t> block) {
    const MutexLock lock(mutex);
    if (use.get() != from) return;  // it has been ended
    for (const auto& [number, receiver] : receivers) receiver.pass(block);
}

void SourceDevice::Unplug(const Use* from) {
    const MutexLock lock(mutex);
    if (use.get() != from) return;
    use = nullptr;
    for (const auto& [number, receiver] : receivers) receiver.unplug();
    receivers.clear();
}

}  // namespace vexa::unit
