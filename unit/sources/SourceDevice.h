// A device with a source: the thread that reads it, and those who get its blocks.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "foundation/Mutex.h"
#include "model/Runtime.h"
#include "sources/Source.h"

namespace vexa::unit {

// Who has the device open. Called on the source's thread.
struct SourceReceiver {
    std::function<void(std::span<const std::uint8_t>)> pass;
    std::function<void()> unplug;  // the device has gone, or cannot be read
};

// The device is read while it has a receiver. Nothing here waits for its driver, except on the
// source's thread: one that does not return is left alone, and the next use waits for it. Any
// thread.
class SourceDevice : public std::enable_shared_from_this<SourceDevice> {
  public:
    using Make = std::function<std::unique_ptr<Source>()>;

    // `make` makes the source for each use of it, on the source's thread.
    SourceDevice(std::string name, Make make);

    // Adds a receiver, for Leave; starts reading with the first one. Throws std::system_error when
    // there is no thread left for it.
    [[nodiscard]] std::uint32_t Join(SourceReceiver receiver);
    // Nothing is passed to the receiver afterwards, but for a call that is under way. Reading ends
    // with the last one, a little later.
    void Leave(std::uint32_t receiver);

    // Queues `bytes` for the device. False when it is not read now, or too much is queued.
    [[nodiscard]] bool Write(std::span<const std::uint8_t> bytes);

    // Waits until nothing reads the device any more; false when something still does after
    // `timeout`.
    bool AwaitEnd(std::chrono::milliseconds timeout);

    // A line about the device on standard error, which is the unit's log.
    void Tell(const std::string& text) const;

  private:
    class Use;

    // The source's thread.
    void Run(const std::shared_ptr<Use>& use);
    // Waits until no earlier use has the device. False when this one is to end first.
    [[nodiscard]] bool Acquire(const std::shared_ptr<Use>& use);
    void Pass(const Use* from, std::span<const std::uint8_t> block);
    void Unplug(const Use* from);

    const std::string name;
    const Make make;
    Mutex mutex;
    std::condition_variable_any released;
    bool isRead VEXA_GUARDED_BY(mutex) = false;       // a source has the device
    std::shared_ptr<Use> use VEXA_GUARDED_BY(mutex);  // null: it is not read, or ending
    std::uint32_t lastReceiver VEXA_GUARDED_BY(mutex) = 0;
    std::map<std::uint32_t, SourceReceiver> receivers VEXA_GUARDED_BY(mutex);
};

}  // namespace vexa::unit
