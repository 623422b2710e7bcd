#include "model/CriLibrary.h"

#include <utility>

namespace vexa::unit {

CriLibrary::CriLibrary(const ApplicationMap& applications_) {
    for (const auto& [name, settings] : applications_) {
        Application& application = applications[name];
        application.name = name;
        application.settings = settings;
        application.holds = settings.holds;
    }
}

std::uint32_t CriLibrary::Init(std::string_view name, CriCallback callback, void* context,
                               CriSession::Witness witness) {
    const auto application = applications.find(name);
    if (application == applications.end() || application->second.settings.initFails) return 0;
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

}  // namespace vexa::unit
