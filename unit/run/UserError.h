// What a user did wrong, as one line that says what and why.
#pragma once

#include <stdexcept>

namespace vexa::unit {

inline constexpr int kUserErrorStatus = 2;  // exit status of vexa-unit then

class UserError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace vexa::unit
