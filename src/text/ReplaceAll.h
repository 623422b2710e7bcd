#pragma once

#include <string>
#include <string_view>

namespace vexa {

// Returns `text` with every occurrence of `what` replaced by `with`, from left to right; inserted
// text is not searched again. An empty `what` changes nothing. Any thread.
std::string ReplaceAll(std::string_view text, std::string_view what, std::string_view with);

}  // namespace vexa
