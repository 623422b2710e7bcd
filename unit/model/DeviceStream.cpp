#include "model/DeviceStream.h"

#include <utility>

#include "model/QuietThread.h"

namespace vexa::unit {

namespace {
// Writes that wait for a device whose callback does not return; beyond, they are refused.
constexpr std::size_t kMaxWaitingWrites = 1000;
}  // namespace

DeviceStream::DeviceStream(std::string deviceName, std::unique_ptr<DeviceModel> model,
                           VEXA_ReadCallback callback, void* context)
    : deviceName_(std::move(deviceName)),
      model_(std::move(model)),
      callback_(callback),
      context_(context) {}

void DeviceStream::Start() {
    const std::lock_guard lock(mutex_);
    thread_ = StartQuietThread([self = shared_from_this()] { self->Run(); });
}

bool DeviceStream::Write(std::span<const std::uint8_t> bytes) {
    {
        const std::lock_guard lock(mutex_);
        if (requests_.size() >= kMaxWaitingWrites) return false;
        requests_.emplace_back(bytes.begin(), bytes.end());
    }
    ++writes_;
    changed_.notify_one();
    return true;
}

void DeviceStream::Close() {
    std::thread thread;
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        thread = std::move(thread_);
    }
    changed_.notify_one();
    if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();  // closed by its own callback: it ends when that returns
    } else {
        thread.join();
    }
}

StreamCounts DeviceStream::Counts() const { return {blocks_, taken_, refused_, writes_}; }

DeviceStream::Requests DeviceStream::AwaitWork() {
    std::unique_lock lock(mutex_);
    const auto woken = [this] { return stopping_ || !requests_.empty(); };
    const TimePoint due = model_->NextDue();
    if (due == kNever) {
        changed_.wait(lock, woken);
    } else {
        changed_.wait_until(lock, due, woken);
    }
    return std::exchange(requests_, {});
}

void DeviceStream::DeliverWhatIsDue() {
    while (!stopping_) {
        const TimePoint now = Clock::now();
        if (model_->NextDue() > now) return;
        const auto block = model_->Next(now);
        ++blocks_;
        const bool taken =
            callback_(block.data(), static_cast<std::int32_t>(block.size()), context_) == 0;
        ++(taken ? taken_ : refused_);
    }
}

void DeviceStream::Run() {
    while (!stopping_) {
        for (const auto& request : AwaitWork()) model_->Take(request, Clock::now());
        DeliverWhatIsDue();
    }
}

}  // namespace vexa::unit
