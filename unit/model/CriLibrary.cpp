#include "model/CriLibrary.h"

#include <utility>

namespace vexa::unit {

CriLibrary::CriLibrary(const ApplicationMap& settings) {
    for (const auto& [name, behaviour] : settings) applications.try_emplace(name, name, behaviour);
}

std::uint32_t CriLibrary::Init(std::string_view name, CriCallback callback, void* context,
                               CriSession::Witness witness) {
    const auto application = applications.find(name);
    if (application == applications.end() || application->second.Settings().initFails) return 0;
    const auto session =
        std::make_shared<CriSession>(application->second, callback, context, std::move(witness));
    const std::lock_guard lock(mutex);
    sessions[++lastHandle] = session;
    session->Start();
    return lastHandle;
}

std::shared_ptr<CriSession> CriLibrary::Find(std::uint32_t session) const {
    const std::lock_guard lock(mutex);
    const auto found = sessions.find(session);
    return found == sessions.end() ? nullptr : found->second;
}

bool CriLibrary::Command(std::uint32_t session, std::uint32_t command) {
    const auto found = Find(session);
    return found && found->Command(command);
}

std::optional<std::string> CriLibrary::Terminate(std::uint32_t session) {
    std::shared_ptr<CriSession> ending;
    {
        const std::lock_guard lock(mutex);
        const auto found = sessions.find(session);
        if (found == sessions.end()) return std::nullopt;
        ending = std::move(found->second);
        sessions.erase(found);
    }
    ending->Terminate();
    return ending->ApplicationName();
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
    const std::lock_guard lock(mutex);
    for (const auto& [handle, session] : sessions) {
        if (session->ApplicationName() == name) session->FollowSettings();
    }
}

}  // namespace vexa::unit
