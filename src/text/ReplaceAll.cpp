#include "text/ReplaceAll.h"

namespace vexa {

std::string ReplaceAll(std::string_view text, std::string_view what, std::string_view with) {
    std::string result;
    while (!what.empty()) {
        const std::size_t found = text.find(what);
        if (found == std::string_view::npos) break;
        result.append(text.substr(0, found)).append(with);
        text.remove_prefix(found + what.size());
    }
    return result.append(text);
}

}  // namespace vexa
