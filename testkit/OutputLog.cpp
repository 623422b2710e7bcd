#include "testkit/OutputLog.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>

namespace vexa::testkit {

namespace {

using Clock = std::chrono::steady_clock;

// The reader looks this often whether it is to stop: something that the program started may hold
// the output open for ever.
constexpr int kStopPollMs = 50;

}  // namespace

std::vector<std::string> SplitLines(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        lines.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
    return lines;
}

OutputLog::OutputLog(Descriptor source_, std::size_t kept_)
    : source(std::move(source_)), kept(kept_), thread([this] { Read(); }) {}

OutputLog::~OutputLog() {
    stop = true;
    thread.join();
}

void OutputLog::Read() {
    std::array<char, 4096> chunk;
    while (!stop) {
        pollfd entry{source.Get(), POLLIN, 0};
        if (::poll(&entry, 1, kStopPollMs) <= 0) continue;
        const ssize_t count = ::read(source.Get(), chunk.data(), chunk.size());
        if (count < 0 && errno == EINTR) continue;
        const MutexLock lock(mutex);
        ended = count <= 0;
        if (!ended) text.append(chunk.data(), static_cast<std::size_t>(count));
        DropOldest();
        changed.notify_all();
        if (ended) return;
    }
}

// Half at a time, so that it costs little.
void OutputLog::DropOldest() {
    if (text.size() / 2 < kept) return;
    const std::size_t dropped = text.size() - kept;
    text.erase(0, dropped);
    begin += dropped;
    missed += dropped - std::min(taken, dropped);
    taken -= std::min(taken, dropped);
}

std::string OutputLog::Text() {
    const MutexLock lock(mutex);
    return text;
}

std::vector<std::string> OutputLog::Lines() { return SplitLines(Text()); }

std::vector<std::string> OutputLog::TakeLines() {
    const MutexLock lock(mutex);
    const std::size_t end = ended ? text.size() : text.rfind('\n') + 1;
    if (end <= taken) return {};
    auto lines = SplitLines(std::string_view(text).substr(taken, end - taken));
    taken = end;
    if (missed > 0) {
        std::string note = "(";
        note += std::to_string(missed);
        lines.insert(lines.begin(), note += " bytes left out)");
    }
    missed = 0;
    return lines;
}

std::size_t OutputLog::WaitFor(std::string_view wanted, Milliseconds timeout, std::size_t from) {
    const auto deadline = Clock::now() + timeout;
    MutexLock lock(mutex);
    for (;;) {
        const std::size_t found = text.find(wanted, from - std::min(from, begin));
        if (found != std::string::npos) return begin + found + wanted.size();
        if (ended || Clock::now() >= deadline) return std::string::npos;
        changed.wait_until(lock, deadline);
    }
}

bool OutputLog::WaitForEnd(Milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    MutexLock lock(mutex);
    while (!ended && Clock::now() < deadline) changed.wait_until(lock, deadline);
    return ended;
}

}  // namespace vexa::testkit
