#include "model/DeviceStream.h"

#include <utility>

#include "model/QuietThread.h"

namespace vexa::unit {

namespace {
// Writes that wait for a device whose callback does not return; beyond, they are refused.
constexpr std::size_t kMaxWaitingWrites = 1000;
}  // namespace

DeviceStream::DeviceStream(std::string deviceName_, std::unique_ptr<DeviceModel> model_,
                           VEXA_ReadCallback callback_, void* context_)
    : deviceName(std::move(deviceName_)),
      model(std::move(model_)),
      callback(callback_),
      context(context_) {}

void DeviceStream::Start() {
    const std::lock_guard lock(mutex);
    thread = StartQuietThread([self = shared_from_this()] { self->Run(); });
}

bool DeviceStream::Write(std::span<const std::uint8_t> bytes) {
    {
        const std::lock_guard lock(mutex);
        if (requests.size() >= kMaxWaitingWrites) return false;
        requests.emplace_back(bytes.begin(), bytes.end());
    }
    ++writes;
    changed.notify_one();
    return true;
}

void DeviceStream::Close() {
    std::thread ending;
    {
        const std::lock_guard lock(mutex);
        stopping = true;
        ending = std::move(thread);
    }
    changed.notify_one();
    AwaitEnd(std::move(ending));
}

StreamCounts DeviceStream::Counts() const { return {blocks, taken, refused, writes}; }

DeviceStream::Requests DeviceStream::AwaitWork() {
    std::unique_lock lock(mutex);
    const auto woken = [this] { return stopping || !requests.empty(); };
    const TimePoint due = model->NextDue();
    if (due == kNever) {
        changed.wait(lock, woken);
    } else {
        changed.wait_until(lock, due, woken);
    }
    return std::exchange(requests, {});
}

void DeviceStream::DeliverWhatIsDue() {
    while (!stopping) {
        const TimePoint now = Clock::now();
        if (model->NextDue() > now) return;
        const auto block = model->Next(now);
        ++blocks;
        const bool accepted =
            callback(block.data(), static_cast<std::int32_t>(block.size()), context) == 0;
        ++(accepted ? taken : refused);
    }
}

void DeviceStream::Run() {
    while (!stopping) {
        for (const auto& request : AwaitWork()) model->Take(request, Clock::now());
        DeliverWhatIsDue();
    }
}

}  // namespace vexa::unit
