#include "model/CriLibrary.h"

#include <algorithm>
#include <utility>

#include "model/ApplicationProgram.h"

namespace vexa::unit {

namespace {

using std::chrono::milliseconds;

// Session commands that change what an application does, or ask for it.
constexpr std::uint32_t kActivate = 1;
constexpr std::uint32_t kDeactivate = 2;
constexpr std::uint32_t kQuery = 3;

}  // namespace

Application::Application(std::string name_, ApplicationSettings settings_)
    : name(std::move(name_)), settings(std::move(settings_)) {}

ApplicationSettings Application::Settings() const {
    const MutexLock lock(mutex);
    return settings;
}

void Application::Change(const ApplicationSettings& settings_) {
    const MutexLock lock(mutex);
    settings = settings_;
}

std::int32_t Application::Perform(std::uint32_t command, const std::atomic<bool>& isCancelled) {
    const ApplicationSettings now = Settings();
    const auto words = now.program ? CommandFor(*now.program, command) : std::vector<std::string>();
    if (!words.empty() && !now.responses.contains(command)) {
        const std::int32_t response = RunProgram(words, now, isCancelled);
        const MutexLock lock(mutex);
        if (command == kQuery) settings.holds = response == 1;
        if (response == 1 && command == kActivate) settings.holds = true;
        if (response == 1 && command == kDeactivate) settings.holds = false;
        return response;
    }
    const MutexLock lock(mutex);
    const auto replaced = settings.responses.find(command);
    if (command == kQuery && replaced == settings.responses.end()) return settings.holds ? 1 : 0;
    const std::int32_t response = replaced == settings.responses.end() ? 1 : replaced->second;
    if (response == 1 && command == kActivate) settings.holds = true;
    if (response == 1 && command == kDeactivate) settings.holds = false;
    return response;
}

std::int32_t Application::RunProgram(const std::vector<std::string>& words,
                                     const ApplicationSettings& now,
                                     const std::atomic<bool>& isCancelled) {
    constexpr milliseconds kSessionLook{
        20};  // for an end of the session, which signals nothing here
    {
        MutexLock lock(mutex);
        while (isRunning && !isCancelled) released.wait_for(lock, kSessionLook);
        if (isCancelled) return -1;
        isRunning = true;
    }
    const auto response = RunApplication(name, words, now.program->timeoutMs, isCancelled);
    {
        const MutexLock lock(mutex);
        isRunning = false;
    }
    released.notify_all();
    return response;
}

CriSession::CriSession(Application& application_, CriCallback callback_, void* context_,
                       Observer observer_)
    : application(application_),
      callback(callback_),
      context(context_),
      observer(std::move(observer_)) {}

void CriSession::Start() {
    const MutexLock lock(mutex);
    StartIntervals();
    thread = StartQuietThread([self = shared_from_this()] { self->Run(); });
}

bool CriSession::Command(std::uint32_t command) {
    const auto settings = application.Settings();
    if (settings.refuses.contains(command)) return false;
    if (settings.silent) return true;
    {
        const MutexLock lock(mutex);
        pending.push_back({Clock::now() + milliseconds(settings.delayMs), command});
    }
    changed.notify_one();
    return true;
}

void CriSession::FollowSettings() {
    {
        const MutexLock lock(mutex);
        StartIntervals();
    }
    changed.notify_one();
}

void CriSession::Terminate() {
    std::thread ending;
    {
        const MutexLock lock(mutex);
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

std::vector<CriSession::Answer> CriSession::AwaitAnswers() {
    MutexLock lock(mutex);
    while (!stopping) {
        const TimePoint due = NextDue();
        if (due <= Clock::now()) return RemoveDueAnswers();
        if (due == kNever) {
            changed.wait(lock);
        } else {
            changed.wait_until(lock, due);
        }
    }
    return {};
}

std::vector<CriSession::Answer> CriSession::RemoveDueAnswers() {
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

void CriSession::AddAnswer(std::uint32_t command, std::vector<Answer>& into) const {
    const auto strays = application.Settings().strays;
    const auto addStrays = [&](StrayTime when) {
        for (const auto& stray : strays) {
            if (stray.when == when) into.push_back({stray.command, stray.response});
        }
    };
    addStrays(StrayTime::kBeforeAnswer);
    into.push_back({command, std::nullopt});
    addStrays(StrayTime::kAfterAnswer);
}

void CriSession::Run() {
    while (!stopping) {
        for (const auto& [command, stray] : AwaitAnswers()) {
            if (stopping) return;
            // Without the mutex: a program takes its time, and the service gives more commands.
            const std::int32_t response = stray ? *stray : application.Perform(command, stopping);
            if (stopping) return;
            observer(application.Name(), command, response);
            callback(context, command, response);
        }
    }
}

CriLibrary::CriLibrary(const ApplicationMap& settings) {
    for (const auto& [name, behaviour] : settings) applications.try_emplace(name, name, behaviour);
}

std::uint32_t CriLibrary::Init(std::string_view name, CriCallback callback, void* context,
                               CriSession::Observer observer) {
    const auto application = applications.find(name);
    if (application == applications.end() || application->second.Settings().initFails) return 0;
    const auto session =
        std::make_shared<CriSession>(application->second, callback, context, std::move(observer));
    const MutexLock lock(mutex);
    const auto opened = sessions.emplace(++lastHandle, session).first;
    try {
        session->Start();
    } catch (...) {
        sessions.erase(opened);
        throw;
    }
    return lastHandle;
}

std::shared_ptr<CriSession> CriLibrary::Find(std::uint32_t session) const {
    const MutexLock lock(mutex);
    const auto found = sessions.find(session);
    return found == sessions.end() ? nullptr : found->second;
}

bool CriLibrary::Command(std::uint32_t session, std::uint32_t command) {
    const auto found = Find(session);
    return found && found->Command(command);
}

bool CriLibrary::Terminate(std::uint32_t session) {
    std::shared_ptr<CriSession> ending;
    {
        const MutexLock lock(mutex);
        const auto found = sessions.find(session);
        if (found == sessions.end()) return false;
        ending = std::move(found->second);
        sessions.erase(found);
    }
    ending->Terminate();
    return true;
}

std::optional<std::string> CriLibrary::ApplicationName(std::uint32_t session) const {
    const auto found = Find(session);
    if (!found) return std::nullopt;
    return found->ApplicationName();
}

ApplicationMap CriLibrary::Applications() const {
    ApplicationMap all;
    for (const auto& [name, application] : applications) all[name] = application.Settings();
    return all;
}

void CriLibrary::ChangeApplication(std::string_view name, const ApplicationSettings& settings) {
    const auto application = applications.find(name);
    if (application == applications.end()) return;
    application->second.Change(settings);
    const MutexLock lock(mutex);
    for (const auto& [handle, session] : sessions) {
        if (session->ApplicationName() == name) session->FollowSettings();
    }
}

}  // namespace vexa::unit
