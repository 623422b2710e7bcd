// Makes this process a unit of its own, in a temporary folder, for tests that call the stand-ins.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace vexa::unit {

// The folder of this process's unit.
[[nodiscard]] const std::string& UnitFolderUnderTest();

// Lines of the journal so far.
[[nodiscard]] std::vector<std::string> JournalLines();

// The unit's answer to a control request, a line of JSON.
[[nodiscard]] nlohmann::json AskUnit(const std::string& request);

// Looks until `condition` holds; false when it has not come true for a long time.
[[nodiscard]] bool Eventually(const std::function<bool()>& condition);

// Collects what threads hand in.
template <typename Item>
class Collected {
  public:
    void Add(Item item) {
        const std::lock_guard lock(mutex);
        items.push_back(std::move(item));
        changed.notify_all();
    }

    // Waits for at least `count` items; all that have come by then.
    [[nodiscard]] std::vector<Item> Await(std::size_t count) {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, std::chrono::seconds(30), [&] { return items.size() >= count; });
        return items;
    }

  private:
    std::mutex mutex;  // guards items
    std::condition_variable changed;
    std::vector<Item> items;
};

}  // namespace vexa::unit
