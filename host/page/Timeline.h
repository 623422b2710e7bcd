// What has happened at a virtual unit, as it tells it on its control socket.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "foundation/Mutex.h"
#include "vexahost/Transport.h"

namespace vexahost::page {

struct TimelineEntry {
    std::uint64_t number;  // 0 for the first since the start
    double time;           // seconds since the start, of the newest time that it happened
    std::string text;
    bool isProblem;
    std::uint64_t times = 1;   // in a row
    std::uint64_t change = 0;  // number of the change that was its newest
};

// The newest entries. Any thread.
class Timeline {
  public:
    static constexpr std::size_t kCapacity = 500;

    // What happens again and again stays one entry.
    void Add(double time, const std::string& text, bool isProblem);

    // What has changed since the call that left `change` there; 0: all.
    [[nodiscard]] std::vector<TimelineEntry> Since(std::uint64_t& change) const;

  private:
    mutable vexa::Mutex mutex;
    std::deque<TimelineEntry> entries VEXA_GUARDED_BY(mutex);
    std::uint64_t nextNumber VEXA_GUARDED_BY(mutex) = 0;
    std::uint64_t changes VEXA_GUARDED_BY(mutex) = 0;
};

// Listens to a virtual unit's events, also after the unit has begun anew.
class UnitEvents {
  public:
    // `show` is called with each event, a line of JSON, and with nothing when the unit has gone: on
    // a thread of its own.
    UnitEvents(std::filesystem::path socket, std::function<void(const std::string& line)> show);
    ~UnitEvents();
    UnitEvents(const UnitEvents&) = delete;
    UnitEvents& operator=(const UnitEvents&) = delete;

  private:
    void Run();
    // Until the connection ends. False when there was none.
    bool Listen();

    const std::filesystem::path socket;
    const std::function<void(const std::string& line)> show;
    vexa::Mutex mutex;
    std::condition_variable_any changed;
    bool isEnding VEXA_GUARDED_BY(mutex) = false;
    std::shared_ptr<Transport> connection VEXA_GUARDED_BY(mutex);
    std::thread thread;
};

}  // namespace vexahost::page
