// Makes this process a unit of its own, in a temporary folder, for tests that call the stand-ins;
// and a host at the end of a unit's cable.
#pragma once

#include <poll.h>
#include <sys/socket.h>

#include <condition_variable>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "foundation/Mutex.h"
#include "model/UnitSocket.h"
#include "testkit/Wait.h"

namespace vexa::unit {

using testkit::Descriptor;
using Bytes = std::vector<std::uint8_t>;

inline constexpr std::chrono::seconds kPatience{30};

template <typename Condition>
[[nodiscard]] bool Eventually(Condition condition) {
    return testkit::WaitUntil(kPatience, condition);
}

// The folder of this process's unit.
[[nodiscard]] const std::string& UnitFolderUnderTest();

// The lines of the call log so far.
[[nodiscard]] std::vector<std::string> CallLogLines();

// The unit's answer to a control request; `members` are added to {"request": verb}.
[[nodiscard]] nlohmann::json Ask(const std::string& verb, const std::string& members = "");
// The answer to a whole line.
[[nodiscard]] nlohmann::json AskLine(const std::string& line);

// Collects what callbacks are given.
template <typename Item>
class Collected {
  public:
    void Add(Item item) {
        const MutexLock lock(mutex);
        items.push_back(std::move(item));
        changed.notify_all();
    }

    // Waits for at least `count` items; returns all.
    [[nodiscard]] std::vector<Item> Await(std::size_t count) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        MutexLock lock(mutex);
        while (items.size() < count && std::chrono::steady_clock::now() < deadline) {
            changed.wait_until(lock, deadline);
        }
        return items;
    }

  private:
    Mutex mutex;
    std::condition_variable_any changed;
    std::vector<Item> items VEXA_GUARDED_BY(mutex);
};

// A read callback; its context is a Collected<Bytes>.
using Blocks = Collected<Bytes>;
inline std::int32_t CollectBlock(const std::uint8_t* data, std::int32_t count, void* context) {
    static_cast<Blocks*>(context)->Add({data, data + count});
    return 0;
}

// A session callback; its context is an Answers.
using Answer = std::pair<std::uint32_t, std::int32_t>;
using Answers = Collected<Answer>;
inline void CollectAnswer(void* context, std::uint32_t command, std::int32_t response) {
    static_cast<Answers*>(context)->Add({command, response});
}

[[nodiscard]] inline Descriptor ConnectHost(const std::string& folder) {
    return ConnectTo(HostSocketPath(folder));
}

[[nodiscard]] inline bool IsHungUp(const Descriptor& host) {
    pollfd entry{host.Get(), POLLRDHUP, 0};
    return ::poll(&entry, 1, 0) != 0;
}

// Waits for `size` bytes; fewer when the other end hangs up.
[[nodiscard]] inline std::string Receive(const Descriptor& host, std::size_t size) {
    std::string received(size, '\0');
    const auto got = ::recv(host.Get(), received.data(), size, MSG_WAITALL);
    received.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return received;
}

}  // namespace vexa::unit
