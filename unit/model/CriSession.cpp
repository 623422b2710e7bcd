#include "model/CriSession.h"

#include <utility>

#include "model/QuietThread.h"

namespace vexa::unit {

CriSession::CriSession(Application& application_, CriCallback callback_, void* context_,
                       Witness witness_)
    : application(application_),
      callback(callback_),
      context(context_),
      witness(std::move(witness_)) {}

void CriSession::Start() {
    const std::lock_guard lock(mutex);
    thread = StartQuietThread([self = shared_from_this()] { self->Run(); });
}

bool CriSession::Command(std::uint32_t command) {
    const auto& settings = application.settings;
    if (settings.refuses.contains(command)) return false;
    if (settings.silent) return true;
    {
        const std::lock_guard lock(mutex);
        pending.push_back({Clock::now() + std::chrono::milliseconds(settings.delayMs), command});
    }
    changed.notify_one();
    return true;
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

std::int32_t CriSession::Perform(std::uint32_t command) {
    const auto& responses = application.settings.responses;
    const auto replaced = responses.find(command);
    if (command == kQuery && replaced == responses.end()) return application.holds ? 1 : 0;
    const std::int32_t response = replaced == responses.end() ? 1 : replaced->second;
    if (response == 1 && command == kActivate) application.holds = true;
    if (response == 1 && command == kDeactivate) application.holds = false;
    return response;
}

void CriSession::Run() {
    std::unique_lock lock(mutex);
    while (!stopping) {
        if (pending.empty()) {
            changed.wait(lock);
            continue;
        }
        const PendingAnswer next = pending.front();
        if (next.due > Clock::now()) {
            changed.wait_until(lock, next.due);
            continue;
        }
        pending.pop_front();
        lock.unlock();
        const std::int32_t response = Perform(next.command);
        witness(application.name, next.command, response);
        callback(context, next.command, response);
        lock.lock();
    }
}

}  // namespace vexa::unit
