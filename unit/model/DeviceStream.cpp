#include "model/DeviceStream.h"

#include <utility>
namespace vexa::unit {

namespace {

// Requests that may be queued while the callback does not return; further writes are refused.
constexpr std::size_t kMaxQueuedRequests = 1000;

// The block as faults alter it: repeated or cut to a given size, with a byte inverted.
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
                           FaultTable& faults_, VEXA_ReadCallback callback_, void* context_,
                           std::shared_ptr<SourceDevice> source_)
    : deviceName(std::move(deviceName_)),
      model(std::move(model_)),
      faults(faults_),
      callback(callback_),
      context(context_),
      source(std::move(source_)) {}

void DeviceStream::Start() {
    if (source) {
        // The source is left in Close(), and yet may have a call under way.
        receiver = source->Join({[self = weak_from_this()](std::span<const std::uint8_t> block) {
                                     if (const auto stream = self.lock()) stream->Pass(block);
                                 },
                                 [self = weak_from_this()] {
                                     if (const auto stream = self.lock()) stream->Unplug();
                                 }});
    }
    try {
        const MutexLock lock(mutex);
        thread = StartQuietThread([self = shared_from_this()] { self->Run(); });
    } catch (...) {
        if (source) source->Leave(receiver);
        throw;
    }
}

void DeviceStream::Pass(std::span<const std::uint8_t> block) {
    bool full = false;
    {
        const MutexLock lock(mutex);
        full = requests.size() >= kMaxQueuedRequests;
        if (!full) {
            requests.push_back([bytes = std::vector(block.begin(), block.end())](
                                   DeviceModel& device) { device.Pass(bytes, Clock::now()); });
        }
    }
    if (full && !drops.exchange(true)) source->Tell("the service does not take its blocks in time");
    changed.notify_one();
}

bool DeviceStream::Write(std::span<const std::uint8_t> bytes) {
    {
        const MutexLock lock(mutex);
        if (unplugged || requests.size() >= kMaxQueuedRequests) return false;
        requests.push_back([written = std::vector(bytes.begin(), bytes.end())](
                               DeviceModel& device) { device.Receive(written, Clock::now()); });
    }
    ++writes;
    changed.notify_one();
    return true;
}

void DeviceStream::Change(std::function<void(DeviceModel&)> change) {
    {
        const MutexLock lock(mutex);
        requests.push_back(std::move(change));
    }
    changed.notify_one();
}

void DeviceStream::Unplug() {
    {
        const MutexLock lock(mutex);
        unplugged = true;
    }
    changed.notify_one();
}

void DeviceStream::Close(bool sendsData) {
    if (source) source->Leave(receiver);
    std::thread ending;
    {
        const MutexLock lock(mutex);
        stopping = true;
        lastBlock = sendsData && thread.get_id() != std::this_thread::get_id();
        ending = std::move(thread);
    }
    changed.notify_one();
    AwaitEnd(std::move(ending));
}

StreamCounts DeviceStream::Counts() const { return {blocks, taken, refused, writes}; }

DeviceStream::Requests DeviceStream::AwaitWork() {
    MutexLock lock(mutex);
    while (!stopping && requests.empty()) {
        const TimePoint due = unplugged ? kNever : model->NextDue();
        if (due <= Clock::now()) break;
        if (due == kNever) {
            changed.wait(lock);
        } else {
            changed.wait_until(lock, due);
        }
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

void DeviceStream::DeliverDueBlocks() {
    while (!stopping && !unplugged) {
        const TimePoint now = Clock::now();
        if (model->NextDue() > now) return;
        Deliver(model->Next(now));
    }
}

bool DeviceStream::SendsLastBlock() {
    const MutexLock lock(mutex);
    return lastBlock && !unplugged && !source;
}

void DeviceStream::Run() {
    while (!stopping) {
        for (const auto& request : AwaitWork()) request(*model);
        DeliverDueBlocks();
    }
    if (SendsLastBlock()) Deliver(model->Next(Clock::now()));
}

}  // namespace vexa::unit
