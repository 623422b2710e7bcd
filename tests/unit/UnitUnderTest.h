// Makes this process a unit of its own, in a temporary folder, for tests that call the stand-ins.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "foundation/Mutex.h"
#include "model/UnitSocket.h"
#include "testkit/Wait.h"

namespace vexa::unit {

using testkit::Descriptor;
using Bytes = std::vector<std::uint8_t>;

template <typename Condition>
[[nodiscard]] bool Eventually(Condition condition) {
    return testkit::WaitUntil(std::chrono::seconds(30), condition);
}

// The folder of the unit, which is there from the first call of a stand-in on.
[[nodiscard]] inline const std::string& UnitFolder() {
    struct Folder {
        Folder() {
            path = ::mkdtemp(path.data());
            const std::string scenario = path + "/scenario.json";
            std::ofstream(scenario) << R"({
                "devices": [{"name": "Fast", "type": 8, "rate": 500},
                            {"name": "Quiet", "type": 8, "rate": 0},
                            {"name": "Tilt", "type": 2, "rate": 0}],
                "daq": {"name": "Board", "syncDelayMs": 0},
                "timeline": [{"at": "1ms", "repeat": "1ms", "times": 2,
                              "attach": {"name": "Timed", "type": 9}}],
                "applications": {"DAQ": {"delayMs": 0}, "FGEN": {"silent": true},
                                 "SPLASH": {"delayMs": 0, "refuses": [2], "responses": {"1": -5}}}})";
            ::setenv("VEXA_UNIT_DIR", path.c_str(), 1);
            ::setenv("VEXA_UNIT_SCENARIO", scenario.c_str(), 1);
            ::setenv("VEXA_UNIT_JOURNAL", (path + "/journal").c_str(), 1);
        }
        ~Folder() { std::filesystem::remove_all(path); }
        std::string path = ::testing::TempDir() + "/unit-under-test-XXXXXX";
    };
    static const Folder folder;
    return folder.path;
}

// Waits for `size` bytes; fewer when the other end hangs up.
[[nodiscard]] inline std::string Receive(const Descriptor& from, std::size_t size) {
    std::string received(size, '\0');
    const auto got = ::recv(from.Get(), received.data(), size, MSG_WAITALL);
    received.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return received;
}

// The unit's answer to a line on its control socket.
[[nodiscard]] inline nlohmann::json AskLine(const std::string& line) {
    static const Descriptor connection = ConnectTo(ControlSocketPath(UnitFolder()));
    EXPECT_GT(::send(connection.Get(), (line + "\n").c_str(), line.size() + 1, MSG_NOSIGNAL), 0);
    std::string answer;
    for (std::string byte; (byte = Receive(connection, 1)) != "\n" && !byte.empty();) {
        answer += byte;
    }
    return nlohmann::json::parse(answer, nullptr, false);
}

// The line of a request: {"request": verb, members}.
[[nodiscard]] inline std::string Line(const std::string& verb, const std::string& members = "") {
    return R"({"request": ")" + verb + (members.empty() ? "\"" : "\", ") + members + "}";
}

// The answer to such a request, which must be carried out.
inline nlohmann::json Ask(const std::string& verb, const std::string& members = "") {
    auto answer = AskLine(Line(verb, members));
    EXPECT_EQ(answer["ok"], true) << members << answer;
    return answer;
}

// Collects what another thread hands over.
template <typename Item>
class Collected {
  public:
    void Add(Item item) {
        const MutexLock lock(mutex);
        items.push_back(std::move(item));
    }
    [[nodiscard]] std::vector<Item> Now() {
        const MutexLock lock(mutex);
        return items;
    }
    // Waits for at least `count` items; returns all.
    [[nodiscard]] std::vector<Item> Await(std::size_t count) {
        EXPECT_TRUE(Eventually([&] { return Now().size() >= count; }));
        return Now();
    }

  private:
    Mutex mutex;
    std::vector<Item> items VEXA_GUARDED_BY(mutex);
};

}  // namespace vexa::unit
