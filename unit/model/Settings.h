// The settings of a unit. Settings.cpp describes each of them once: key, type, range, default and
// meaning. That description is used for reading scenario files and control requests, for the state
// that a unit reports, for the schema and for help.
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "model/CheckedJson.h"
#include "model/Scenario.h"

namespace vexa::unit {

// Why a scenario cannot be used: one line with the file, the key's path and what was expected.
struct ScenarioError {
    std::string text;
};

// Reads and checks the JSON file at `path`; errors call it `name`. What it leaves out is as in the
// default unit; a "devices" list replaces the default one.
[[nodiscard]] std::variant<Scenario, ScenarioError> LoadScenario(const std::string& path,
                                                                 const std::string& name);

// The JSON schema of scenario files, as text.
[[nodiscard]] std::string ScenarioSchemaText();

// What the keys of "device", "daq", "application", "cable", "fault" or "wait" mean, a line each,
// for help; without the keys in `except`.
[[nodiscard]] std::string SettingsHelp(const std::string& of, std::string_view except = "");

// The two below: for DeviceSettings, DaqSettings, ApplicationSettings, CableSettings and Fault; the
// first also for WaitSettings.

// Changes in `settings` what `json` gives; the rest stays. Throws JsonError at the first thing that
// is wrong; `settings` is of no use then.
template <typename Settings>
void ReadSettings(const CheckedJson& json, Settings& settings);

// `settings` with all their keys; a fault only with those that matter for it.
template <typename Settings>
[[nodiscard]] Json SettingsToJson(const Settings& settings);

// The call that the member `key` of `json` names.
[[nodiscard]] Call ReadCall(const CheckedJson& json, std::string_view key);

}  // namespace vexa::unit
