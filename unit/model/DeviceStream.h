// An open stream: a thread that runs one device's model and hands what it sends to the read
// callback.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "VEXA.h"
#include "model/DeviceModel.h"
#include "model/FaultTable.h"

namespace vexa::unit {

// What went through a stream.
struct StreamCounts {
    std::uint64_t blocks = 0;  // handed to the callback
    std::uint64_t taken = 0;
    std::uint64_t refused = 0;
    std::uint64_t writes = 0;
};

class DeviceStream : public std::enable_shared_from_this<DeviceStream> {
  public:
    // `faults`, which must outlive the stream, are those of the blocks that the device sends.
    DeviceStream(std::string deviceName, std::unique_ptr<DeviceModel> model, FaultTable& faults,
                 VEXA_ReadCallback callback, void* context);

    // Starts the thread, which keeps the stream alive while it runs. Once, before all else.
    void Start();

    // Hands `bytes` to the device without waiting for it. False when the device is gone, or when
    // too much is waiting already. Any thread.
    [[nodiscard]] bool Write(std::span<const std::uint8_t> bytes);

    // Lets the stream's thread change the model. Any thread.
    void Change(std::function<void(DeviceModel&)> change);

    // The device has been taken away: it sends nothing any more. Any thread.
    void Unplug();
    [[nodiscard]] bool IsUnplugged() const { return unplugged; }

    // Ends the thread. Once it has returned no callback runs, except the one that called it. With
    // `sendsData` the device sends one more block before the end, whether it is due or not; not
    // when a callback of this stream closes it. Once.
    void Close(bool sendsData = false);

    // Any thread; complete after Close().
    [[nodiscard]] StreamCounts Counts() const;

    [[nodiscard]] const std::string& DeviceName() const { return deviceName; }

  private:
    using Request = std::function<void(DeviceModel&)>;
    using Requests = std::deque<Request>;

    void Run();
    // Waits until something was written, the model has something to send or the stream is to end.
    [[nodiscard]] Requests AwaitWork();
    void DeliverWhatIsDue();
    void Deliver(std::span<const std::uint8_t> block);

    const std::string deviceName;
    const std::unique_ptr<DeviceModel> model;  // the stream's thread only
    FaultTable& faults;
    const VEXA_ReadCallback callback;
    void* const context;

    std::mutex mutex;  // guards requests, lastBlock and thread
    std::condition_variable changed;
    Requests requests;
    bool lastBlock = false;  // one more is to be sent at the end
    std::thread thread;
    std::atomic<bool> stopping = false;   // set under mutex
    std::atomic<bool> unplugged = false;  // set under mutex

    std::atomic<std::uint64_t> blocks = 0;
    std::atomic<std::uint64_t> taken = 0;
    std::atomic<std::uint64_t> refused = 0;
    std::atomic<std::uint64_t> writes = 0;
};

}  // namespace vexa::unit
