#include "model/Application.h"

#include <utility>

namespace vexa::unit {

Application::Application(std::string name_, ApplicationSettings settings_)
    : name(std::move(name_)), settings(std::move(settings_)) {}

ApplicationSettings Application::Settings() const {
    const std::lock_guard lock(mutex);
    return settings;
}

void Application::Change(const ApplicationSettings& settings_) {
    const std::lock_guard lock(mutex);
    settings = settings_;
}

std::int32_t Application::Perform(std::uint32_t command) {
    const std::lock_guard lock(mutex);
    const auto replaced = settings.responses.find(command);
    if (command == kQuery && replaced == settings.responses.end()) return settings.holds ? 1 : 0;
    const std::int32_t response = replaced == settings.responses.end() ? 1 : replaced->second;
    if (response == 1 && command == kActivate) settings.holds = true;
    if (response == 1 && command == kDeactivate) settings.holds = false;
    return response;
}

}  // namespace vexa::unit
