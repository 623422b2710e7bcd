// An error for the user: one line that says what went wrong and why.
#pragma once

#include <stdexcept>

namespace vexa::unit {

// Exit statuses of vexa-unit.
inline constexpr int kRefusedStatus = 1;    // the unit has refused
inline constexpr int kUserErrorStatus = 2;  // wrong usage, or no unit
inline constexpr int kTimeoutStatus = 3;    // a wait has timed out
inline constexpr int kOutputStatus = 6;     // standard output could not be written

class UserError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace vexa::unit
