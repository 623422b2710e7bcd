#include "page/Timeline.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "vexahost/SocketTransport.h"

namespace vexahost::page {

namespace {

constexpr std::chrono::milliseconds kConnectLimit{2000};
constexpr std::chrono::milliseconds kAgain{500};
constexpr std::chrono::milliseconds kSilence{3'600'000};  // Close ends the wait
constexpr std::size_t kLongestEvent = 1 << 20;

}  // namespace

void Timeline::Add(double time, const std::string& text, bool isProblem) {
    const vexa::MutexLock lock(mutex);
    ++changes;
    if (!entries.empty() && entries.back().text == text) {
        TimelineEntry& last = entries.back();
        last.time = time;
        ++last.times;
        last.change = changes;
        return;
    }
    entries.push_back({nextNumber++, time, text, isProblem, 1, changes});
    if (entries.size() > kCapacity) entries.pop_front();
}

std::vector<TimelineEntry> Timeline::Since(std::uint64_t& change) const {
    const vexa::MutexLock lock(mutex);
    const auto isNew = [&](const TimelineEntry& entry) { return entry.change > change; };
    std::vector<TimelineEntry> found(std::ranges::find_if(entries, isNew), entries.end());
    change = changes;
    return found;
}

UnitEvents::UnitEvents(std::filesystem::path socket_,
                       std::function<void(const std::string& line)> show_)
    : socket(std::move(socket_)), show(std::move(show_)), thread([this] { Run(); }) {}

UnitEvents::~UnitEvents() {
    {
        const vexa::MutexLock lock(mutex);
        isEnding = true;
        if (connection) connection->Close();
    }
    changed.notify_all();
    thread.join();
}

void UnitEvents::Run() {
    while (true) {
        if (Listen()) show("");
        vexa::MutexLock lock(mutex);
        if (isEnding) return;
        changed.wait_for(lock, kAgain);
        if (isEnding) return;
    }
}

bool UnitEvents::Listen() {
    auto made = SocketTransport::ConnectUnit(socket, {DeadlineAfter(kConnectLimit), {}});
    if (!made) return false;
    const std::shared_ptr<Transport> unit = std::move(*made);
    {
        const vexa::MutexLock lock(mutex);
        if (isEnding) return false;
        connection = unit;
    }
    constexpr std::string_view kRequest = "{\"request\": \"events\"}\n";
    const std::vector<std::uint8_t> request(kRequest.begin(), kRequest.end());
    if (!unit->WriteAll(request, DeadlineAfter(kConnectLimit))) return false;
    std::array<std::uint8_t, 16384> buffer;
    std::string rest;
    bool hasBegun = false;
    while (rest.size() < kLongestEvent) {
        const auto count = unit->Read(buffer, kSilence);
        if (!count) break;
        rest.append(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(*count));
        std::size_t begin = 0;
        for (auto end = rest.find('\n'); end != std::string::npos; end = rest.find('\n', begin)) {
            show(rest.substr(begin, end - begin));
            hasBegun = true;
            begin = end + 1;
        }
        rest.erase(0, begin);
    }
    return hasBegun;
}

}  // namespace vexahost::page
