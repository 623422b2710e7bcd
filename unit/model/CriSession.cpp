#include "model/CriSession.h"

#include <algorithm>
#include <utility>

#include "model/QuietThread.h"

namespace vexa::unit {

using std::chrono::milliseconds;

CriSession::CriSession(Application& application_, CriCallback callback_, void* context_,
                       Witness witness_)
    : application(application_),
      callback(callback_),
      context(context_),
      witness(std::move(witness_)) {}

void CriSession::Start() {
    const std::lock_guard lock(mutex);
    StartIntervals();
    thread = StartQuietThread([self = shared_from_this()] { self->Run(); });
}

bool CriSession::Command(std::uint32_t command) {
    const auto settings = application.Settings();
    if (settings.refuses.contains(command)) return false;
    if (settings.silent) return true;
    {
        const std::lock_guard lock(mutex);
        pending.push_back({Clock::now() + milliseconds(settings.delayMs), command});
    }
    changed.notify_one();
    return true;
}

void CriSession::FollowSettings() {
    {
        const std::lock_guard lock(mutex);
        StartIntervals();
    }
    changed.notify_one();
}

void CriSession::Terminate() {
    std::thread ending;
    {
        const std::lock_guard lock(mutex);
        stopping = true;
        ending = std::move(thread);
    }
    changed.notify_one();
    AwaitEnd(std::move(ending));
}

void CriSession::StartIntervals() {
    intervals.clear();
    const TimePoint now = Clock::now();
    for (const auto& stray : application.Settings().strays) {
        if (stray.when != StrayTime::kInterval) continue;
        intervals.push_back({now + milliseconds(stray.intervalMs), stray});
    }
}

TimePoint CriSession::NextDue() const {
    TimePoint due = pending.empty() ? kNever : pending.front().due;
    for (const auto& interval : intervals) due = std::min(due, interval.due);
    return due;
}

void CriSession::AwaitDue(std::unique_lock<std::mutex>& lock) {
    while (!stopping) {
        const TimePoint due = NextDue();
        if (due <= Clock::now()) return;
        if (due == kNever) {
            changed.wait(lock);
        } else {
            changed.wait_until(lock, due);
        }
    }
}

std::vector<CriSession::Answer> CriSession::TakeDue() {
    std::vector<Answer> answers;
    const TimePoint now = Clock::now();
    if (!pending.empty() && pending.front().due <= now) {
        AddAnswer(pending.front().command, answers);
        pending.pop_front();
    }
    for (auto& [due, stray] : intervals) {
        if (due > now) continue;
        answers.push_back({stray.command, stray.response});
        due = now + milliseconds(stray.intervalMs);
    }
    return answers;
}

void CriSession::AddAnswer(std::uint32_t command, std::vector<Answer>& into) {
    const auto strays = application.Settings().strays;
    const auto addStrays = [&](StrayTime when) {
        for (const auto& stray : strays) {
            if (stray.when == when) into.push_back({stray.command, stray.response});
        }
    };
    addStrays(StrayTime::kBeforeAnswer);
    into.push_back({command, application.Perform(command)});
    addStrays(StrayTime::kAfterAnswer);
}

void CriSession::Run() {
    std::unique_lock lock(mutex);
    for (AwaitDue(lock); !stopping; AwaitDue(lock)) {
        for (const auto& [command, response] : TakeDue()) {
            if (stopping) return;
            lock.unlock();
            witness(application.Name(), command, response);
            callback(context, command, response);
            lock.lock();
        }
    }
}

}  // namespace vexa::unit
