// An application on the unit: whether it drives the hardware, and how it answers.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "model/Scenario.h"

namespace vexa::unit {

// Session commands.
inline constexpr std::uint32_t kActivate = 1;
inline constexpr std::uint32_t kDeactivate = 2;
inline constexpr std::uint32_t kQuery = 3;

// Several sessions may talk to one. All calls from any thread.
class Application {
  public:
    Application(std::string name_, ApplicationSettings settings_);

    [[nodiscard]] const std::string& Name() const { return name; }

    // `holds` tells whether it drives the hardware now.
    [[nodiscard]] ApplicationSettings Settings() const;
    void Change(const ApplicationSettings& settings_);

    // What the application does on a command, and its response.
    [[nodiscard]] std::int32_t Perform(std::uint32_t command);

  private:
    const std::string name;
    mutable std::mutex mutex;  // guards settings
    ApplicationSettings settings;
};

}  // namespace vexa::unit
