#include "LineLog.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "../Interrupt.h"

namespace {

using Clock = std::chrono::steady_clock;

// Waits look up this often: a signal wakes nobody who waits for a condition, and the program's
// output stays open as long as anything that it started lives.
constexpr std::chrono::milliseconds kLookUp{100};

template <typename Condition>
bool WaitUntil(std::condition_variable& changed, std::unique_lock<std::mutex>& lock,
               Clock::time_point deadline, Condition condition) {
    while (!condition()) {
        const auto now = Clock::now();
        if (now >= deadline || IsInterrupted()) return false;
        changed.wait_until(lock, std::min(deadline, now + kLookUp));
    }
    return true;
}

}  // namespace

LineLog::LineLog(int handle) : descriptor(handle), thread([this] { Read(); }) {}

LineLog::~LineLog() {
    stop = true;
    thread.join();
    close(descriptor);
}

void LineLog::Read() {
    std::array<char, 4096> buffer;
    while (!stop) {
        pollfd entry{descriptor, POLLIN, 0};
        if (poll(&entry, 1, static_cast<int>(kLookUp.count())) <= 0) continue;
        const ssize_t count = read(descriptor, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        const std::lock_guard lock(mutex);
        if (count <= 0) {
            ended = true;
            changed.notify_all();
            return;
        }
        for (const char c : std::string_view(buffer.data(), static_cast<std::size_t>(count))) {
            if (c == '\n') {
                lines.push_back(std::move(partial));
                partial.clear();
            } else {
                partial += c;
            }
        }
        changed.notify_all();
    }
}

bool LineLog::Holds(std::string_view text) const {
    const auto holds = [&](const std::string& line) { return line.find(text) != line.npos; };
    return std::ranges::any_of(lines, holds) || holds(partial);
}

bool LineLog::WaitFor(std::string_view text, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex);
    WaitUntil(changed, lock, Clock::now() + timeout, [&] { return Holds(text) || ended; });
    return Holds(text);
}

bool LineLog::WaitForEnd(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex);
    return WaitUntil(changed, lock, Clock::now() + timeout, [&] { return ended; });
}

std::vector<std::string> LineLog::Take() {
    const std::lock_guard lock(mutex);
    std::vector<std::string> taken;
    taken.swap(lines);
    if (!partial.empty()) taken.push_back(std::move(partial));
    partial.clear();
    return taken;
}
