#include "model/CriSession.h"

#include <utility>

#include "model/QuietThread.h"

namespace vexa::unit {

CriSession::CriSession(Application& application, CriCallback callback, void* context,
                       Witness witness)
    : application_(application),
      callback_(callback),
      context_(context),
      witness_(std::move(witness)) {}

void CriSession::Start() {
    const std::lock_guard lock(mutex_);
    thread_ = StartQuietThread([self = shared_from_this()] { self->Run(); });
}

bool CriSession::Command(std::uint32_t command) {
    const auto& settings = application_.settings;
    if (settings.refuses.contains(command)) return false;
    if (settings.silent) return true;
    {
        const std::lock_guard lock(mutex_);
        pending_.push_back({Clock::now() + std::chrono::milliseconds(settings.delayMs), command});
    }
    changed_.notify_one();
    return true;
}

void CriSession::Terminate() {
    std::thread thread;
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        thread = std::move(thread_);
    }
    changed_.notify_one();
    if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();  // terminated by its own callback: it ends when that returns
    } else {
        thread.join();
    }
}

std::int32_t CriSession::Perform(std::uint32_t command) {
    const auto& responses = application_.settings.responses;
    const auto replaced = responses.find(command);
    if (command == kQuery && replaced == responses.end()) return application_.holds ? 1 : 0;
    const std::int32_t response = replaced == responses.end() ? 1 : replaced->second;
    if (response == 1 && command == kActivate) application_.holds = true;
    if (response == 1 && command == kDeactivate) application_.holds = false;
    return response;
}

void CriSession::Run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (pending_.empty()) {
            changed_.wait(lock);
            continue;
        }
        const PendingAnswer next = pending_.front();
        if (next.due > Clock::now()) {
            changed_.wait_until(lock, next.due);
            continue;
        }
        pending_.pop_front();
        lock.unlock();
        const std::int32_t response = Perform(next.command);
        witness_(application_.name, next.command, response);
        callback_(context_, next.command, response);
        lock.lock();
    }
}

}  // namespace vexa::unit
