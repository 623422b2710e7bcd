// An open stream: a thread that runs one device's model and passes what the device sends to the
// read callback.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "VEXA.h"
#include "foundation/Mutex.h"
#include "model/Devices.h"
#include "model/Faults.h"
#include "sources/SourceDevice.h"

namespace vexa::unit {

// Statistics of a stream.
struct StreamCounts {
    std::uint64_t blocks = 0;   // passed to the callback
    std::uint64_t taken = 0;    // accepted by it
    std::uint64_t refused = 0;  // refused by it
    std::uint64_t writes = 0;
};

// Any thread, except where it is said.
class DeviceStream : public std::enable_shared_from_this<DeviceStream> {
  public:
    // `faults`, which must outlive the stream, are applied to the blocks that the device sends.
    // `source`: where the device's data comes from; null: from the model.
    DeviceStream(std::string deviceName, std::unique_ptr<DeviceModel> model, FaultTable& faults,
                 VEXA_ReadCallback callback, void* context,
                 std::shared_ptr<SourceDevice> source = nullptr);

    // Starts the thread, which keeps the stream alive while it runs. Once, before all else. Throws
    // std::system_error when there is no thread left.
    void Start();

    // Queues `bytes` for the device. False when the device is detached or the queue is full.
    [[nodiscard]] bool Write(std::span<const std::uint8_t> bytes);

    // Lets the stream's thread change the model.
    void Change(std::function<void(DeviceModel&)> change);

    // Queues a block of the device's source, or drops it when the callback does not return.
    void Pass(std::span<const std::uint8_t> block);

    // The device has been detached: it sends nothing any more.
    void Unplug();
    [[nodiscard]] bool IsUnplugged() const { return unplugged; }

    // Ends the thread. Afterwards no callback runs, except the one that called this. With
    // `sendsData` the device sends one more block before the end, due or not; not when a callback
    // of this stream closes it. Once.
    void Close(bool sendsData = false);

    // Complete after Close().
    [[nodiscard]] StreamCounts Counts() const;

    [[nodiscard]] const std::string& DeviceName() const { return deviceName; }

  private:
    using Request = std::function<void(DeviceModel&)>;
    using Requests = std::deque<Request>;

    // The stream's thread.
    void Run();
    // Waits for requests, a block that is due or the end of the stream. Returns the requests.
    [[nodiscard]] Requests AwaitWork();
    void DeliverDueBlocks();
    void Deliver(std::span<const std::uint8_t> block);
    [[nodiscard]] bool SendsLastBlock();

    const std::string deviceName;
    const std::unique_ptr<DeviceModel> model;  // the stream's thread only
    FaultTable& faults;
    const VEXA_ReadCallback callback;
    void* const context;
    const std::shared_ptr<SourceDevice> source;
    std::uint32_t receiver = 0;       // of the source; set by Start()
    std::atomic<bool> drops = false;  // a line has told of it

    Mutex mutex;
    std::condition_variable_any changed;
    Requests requests VEXA_GUARDED_BY(mutex);
    bool lastBlock VEXA_GUARDED_BY(mutex) = false;  // one more is to be sent at the end
    std::thread thread VEXA_GUARDED_BY(mutex);
    // Set under the mutex, so that no wait misses them; read without it.
    std::atomic<bool> stopping = false;
    std::atomic<bool> unplugged = false;

    std::atomic<std::uint64_t> blocks = 0;
    std::atomic<std::uint64_t> taken = 0;
    std::atomic<std::uint64_t> refused = 0;
    std::atomic<std::uint64_t> writes = 0;
};

}  // namespace vexa::unit
