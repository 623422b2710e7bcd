#include "page/UnitControl.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <utility>
#include <vector>

#include "vexahost/SocketTransport.h"

namespace vexahost::page {

namespace {

constexpr std::chrono::milliseconds kPatience{2000};
constexpr std::chrono::milliseconds kPeriod{1000};
constexpr std::chrono::milliseconds kSoon{50};  // a few things may happen at once
constexpr std::size_t kMostQuestions = 64;
constexpr std::size_t kLongestAnswer = 1 << 20;

}  // namespace

UnitControl::UnitControl(std::filesystem::path socket_, std::function<void()> wake_)
    : socket(std::move(socket_)), wake(std::move(wake_)), thread([this] { Run(); }) {}

UnitControl::~UnitControl() {
    {
        const vexa::MutexLock lock(mutex);
        isEnding = true;
    }
    changed.notify_all();
    thread.join();
}

void UnitControl::Ask(std::string request, Answer answer) {
    {
        const vexa::MutexLock lock(mutex);
        if (questions.size() < kMostQuestions) {
            questions.push_back({std::move(request), std::move(answer)});
            changed.notify_all();
            return;
        }
    }
    answer("too many requests wait already", "");
}

void UnitControl::Watch(bool wanted) {
    {
        const vexa::MutexLock lock(mutex);
        if (isWatched == wanted) return;
        isWatched = wanted;
        due = {};
    }
    changed.notify_all();
}

void UnitControl::Refresh() {
    {
        const vexa::MutexLock lock(mutex);
        const auto soon = std::chrono::steady_clock::now() + kSoon;
        if (due <= soon) return;
        due = soon;
    }
    changed.notify_all();
}

std::string UnitControl::State() const {
    const vexa::MutexLock lock(mutex);
    return state;
}

void UnitControl::Run() {
    while (true) {
        Question question;
        bool updates = false;
        {
            vexa::MutexLock lock(mutex);
            const auto isDue = [this]() VEXA_REQUIRES(mutex) {
                return isWatched && std::chrono::steady_clock::now() >= due;
            };
            while (questions.empty() && !isEnding && !isDue()) {
                const auto until = due;  // which is read while the lock is given up
                if (isWatched)
                    changed.wait_until(lock, until);
                else
                    changed.wait(lock);
            }
            updates = isDue();
            if (isEnding) return;
            if (!questions.empty()) {
                question = std::move(questions.front());
                questions.pop_front();
            }
        }
        if (question.answer) {
            const std::string line = Exchange(question.request);
            question.answer(line.empty() ? "the unit's control socket does not answer" : "", line);
        }
        if (updates) UpdateState();
    }
}

void UnitControl::UpdateState() {
    {
        const vexa::MutexLock lock(mutex);
        due = std::chrono::steady_clock::now() + kPeriod;
    }
    std::string now = Exchange(R"({"request": "state"})");
    {
        const vexa::MutexLock lock(mutex);
        if (now == state) return;
        state = std::move(now);
    }
    wake();
}

std::string UnitControl::Exchange(const std::string& request) const {
    const Deadline deadline = DeadlineAfter(kPatience);
    auto control = SocketTransport::ConnectUnit(socket, {deadline, {}});
    if (!control) return "";
    std::vector<std::uint8_t> line(request.begin(), request.end());
    line.push_back('\n');
    if (!(*control)->WriteAll(line, deadline)) return "";
    std::string answer;
    std::array<std::uint8_t, 4096> buffer;
    while (answer.size() < kLongestAnswer && std::chrono::steady_clock::now() < deadline) {
        const auto count = (*control)->Read(buffer, kPatience);
        if (!count) return "";
        answer.append(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(*count));
        if (answer.ends_with('\n')) return answer.substr(0, answer.size() - 1);
    }
    return "";
}

}  // namespace vexahost::page
