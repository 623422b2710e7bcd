// Makes this process a unit of its own, in a temporary folder, for tests that call the stand-ins;
// and a host at the end of a unit's cable.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <condition_variable>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "VEXA.h"
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

// The unit's answer to a line on its control socket.
[[nodiscard]] nlohmann::json AskLine(const std::string& line);
// A request's line: {"request": verb, members}.
[[nodiscard]] std::string Line(const std::string& verb, const std::string& members = "");
// The answer to such a request, which must be carried out.
nlohmann::json Ask(const std::string& verb, const std::string& members = "");

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

// A test with the device-access library open.
class WithLibrary : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(library, 0U); }
    void TearDown() override {
        Ask("fault.clear");
        EXPECT_EQ(VEXA_Uninit(library), 0);
    }

    // Opens a stream whose blocks are collected in `blocks`.
    [[nodiscard]] std::uint32_t Open(const char* device) {
        return VEXA_Device_Stream_Open(library, device, CollectBlock, 3, &blocks);
    }
    static std::int32_t Write(std::uint32_t stream, const Bytes& bytes) {
        return VEXA_Device_Stream_Write(stream, bytes.data(),
                                        static_cast<std::int32_t>(bytes.size()));
    }

    const std::uint32_t library = VEXA_Init();
    Blocks blocks;
};

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
