// An open stream: a thread that runs one device's model and hands what it sends to the read
// callback.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "VEXA.h"
#include "model/DeviceModel.h"

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
    DeviceStream(std::string deviceName, std::unique_ptr<DeviceModel> model,
                 VEXA_ReadCallback callback, void* context);

    // Starts the thread, which keeps the stream alive while it runs. Once, before all else.
    void Start();

    // Hands `bytes` to the device without waiting for it. False when too much is waiting already.
    // Any thread.
    [[nodiscard]] bool Write(std::span<const std::uint8_t> bytes);

    // Ends the thread. Once it has returned no callback runs, except the one that called it. Once.
    void Close();

    // Any thread; complete after Close().
    [[nodiscard]] StreamCounts Counts() const;

    [[nodiscard]] const std::string& DeviceName() const { return deviceName; }

  private:
    using Requests = std::deque<std::vector<std::uint8_t>>;

    void Run();
    // Waits until something was written, the model has something to send or the stream is to end.
    [[nodiscard]] Requests AwaitWork();
    void DeliverWhatIsDue();

    const std::string deviceName;
    const std::unique_ptr<DeviceModel> model;  // the stream's thread only
    const VEXA_ReadCallback callback;
    void* const context;

    std::mutex mutex;  // guards requests and thread
    std::condition_variable changed;
    Requests requests;
    std::thread thread;
    std::atomic<bool> stopping = false;  // set under mutex

    std::atomic<std::uint64_t> blocks = 0;
    std::atomic<std::uint64_t> taken = 0;
    std::atomic<std::uint64_t> refused = 0;
    std::atomic<std::uint64_t> writes = 0;
};

}  // namespace vexa::unit
