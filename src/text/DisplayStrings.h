// Constant strings for displays that lack the characters themselves: fractions, a letter followed
// by its accent, and the square sign. The service has no caller: they belong to the interface.
#pragma once

#include <array>
#include <string_view>

namespace vexa {

inline constexpr std::string_view kQuarter = "1/4";
inline constexpr std::string_view kHalf = "1/2";
inline constexpr std::string_view kThreeQuarters = "3/4";
inline constexpr std::string_view kUpperYAccent = "Y^";
inline constexpr std::string_view kLowerYAccent = "y^";
inline constexpr std::string_view kUpperSAccent = "S^";
inline constexpr std::string_view kLowerSAccent = "s^";
inline constexpr std::string_view kSquared = "^2";

inline constexpr std::array<std::string_view, 8> kDisplayStrings = {
    kQuarter,      kHalf,         kThreeQuarters, kUpperYAccent,
    kLowerYAccent, kUpperSAccent, kLowerSAccent,  kSquared};

}  // namespace vexa
