// An error for the user: one line that says what went wrong and why.
#pragma once

#include <stdexcept>

namespace vexa::unit {

inline constexpr int kUserErrorStatus = 2;  // the exit status of vexa-unit

class UserError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace vexa::unit
