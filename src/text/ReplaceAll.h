#pragma once

#include <string>
#include <string_view>

namespace vexa {

// Returns `text` with every occurrence of `what` replaced by `with`, from left to right and without
// looking at what was put in. An empty `what` changes nothing.
std::string ReplaceAll(std::string_view text, std::string_view what, std::string_view with);

}  // namespace vexa
