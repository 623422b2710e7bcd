#include "model/DeviceStream.h"

#include <utility>

#include "model/QuietThread.h"

namespace vexa::unit {

namespace {
// Writes that wait for a device whose callback does not return; beyond, they are refused.
constexpr std::size_t kMaxWaitingWrites = 1000;

// The block as a fault makes it: grown by repetition or cut to size, with a byte inverted.
std::vector<std::uint8_t> Spoiled(std::span<const std::uint8_t> block, const FaultEffect& effect) {
    std::vector<std::uint8_t> spoiled(effect.blockSize.value_or(block.size()));
    for (std::size_t at = 0; at < spoiled.size(); ++at) spoiled[at] = block[at % block.size()];
    if (effect.corrupts) {
        const std::size_t offset = effect.corruptOffset.value_or(spoiled.size() / 2);
        if (offset < spoiled.size()) spoiled[offset] ^= 0xFFU;
    }
    return spoiled;
}
}  // namespace

DeviceStream::DeviceStream(std::string deviceName_, std::unique_ptr<DeviceModel> model_,
                           FaultTable& faults_, VEXA_ReadCallback callback_, void* context_)
    : deviceName(std::move(deviceName_)),
      model(std::move(model_)),
      faults(faults_),
      callback(callback_),
      context(context_) {}

void DeviceStream::Start() {
    const std::lock_guard lock(mutex);
    thread = StartQuietThread([self = shared_from_this()] { self->Run(); });
}

bool DeviceStream::Write(std::span<const std::uint8_t> bytes) {
    {
        const std::lock_guard lock(mutex);
        if (unplugged || requests.size() >= kMaxWaitingWrites) return false;
        requests.push_back([written = std::vector(bytes.begin(), bytes.end())](
                               DeviceModel& device) { device.Take(written, Clock::now()); });
    }
    ++writes;
    changed.notify_one();
    return true;
}

void DeviceStream::Change(std::function<void(DeviceModel&)> change) {
    {
        const std::lock_guard lock(mutex);
        requests.push_back(std::move(change));
    }
    changed.notify_one();
}

void DeviceStream::Unplug() {
    {
        const std::lock_guard lock(mutex);
        unplugged = true;
    }
    changed.notify_one();
}

void DeviceStream::Close(bool sendsData) {
    std::thread ending;
    {
        const std::lock_guard lock(mutex);
        stopping = true;
        lastBlock = sendsData && thread.get_id() != std::this_thread::get_id();
        ending = std::move(thread);
    }
    changed.notify_one();
    AwaitEnd(std::move(ending));
}

StreamCounts DeviceStream::Counts() const { return {blocks, taken, refused, writes}; }

DeviceStream::Requests DeviceStream::AwaitWork() {
    std::unique_lock lock(mutex);
    const auto woken = [this] { return stopping || !requests.empty(); };
    const TimePoint due = unplugged ? kNever : model->NextDue();
    if (due == kNever) {
        changed.wait(lock, woken);
    } else {
        changed.wait_until(lock, due, woken);
    }
    return std::exchange(requests, {});
}

void DeviceStream::Deliver(std::span<const std::uint8_t> block) {
    const FaultEffect effect = faults.Use(Call::kData, deviceName);
    std::vector<std::uint8_t> spoiled;
    if (!effect.IsNone() && !block.empty()) {
        spoiled = Spoiled(block, effect);
        block = spoiled;
    }
    ++blocks;
    const bool accepted =
        callback(block.data(), static_cast<std::int32_t>(block.size()), context) == 0;
    ++(accepted ? taken : refused);
}

void DeviceStream::DeliverWhatIsDue() {
    while (!stopping && !unplugged) {
        const TimePoint now = Clock::now();
        if (model->NextDue() > now) return;
        Deliver(model->Next(now));
    }
}

void DeviceStream::Run() {
    while (!stopping) {
        for (const auto& request : AwaitWork()) request(*model);
        DeliverWhatIsDue();
    }
    const bool sends = [this] {
        const std::lock_guard lock(mutex);
        return lastBlock && !unplugged;
    }();
    if (sends) Deliver(model->Next(Clock::now()));
}

}  // namespace vexa::unit
