// Durations as people write them.
#pragma once

#include <chrono>
#include <optional>
#include <string>

/// A duration such as "3s", "500ms", "2m" or "1.5" (seconds), more than 0 and at most a day.
std::optional<std::chrono::milliseconds> ParseDuration(const std::string& text);
