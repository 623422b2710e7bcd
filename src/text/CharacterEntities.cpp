#include "text/CharacterEntities.h"

#include <algorithm>

namespace vexa {

std::string EncodeEntities(std::string_view text) {
    std::string result;
    for (const char character : text) {
        const auto* entity =
            std::ranges::find(kCharacterEntities, character, &CharacterEntity::character);
        if (entity == kCharacterEntities.end()) {
            result += character;
        } else {
            result += entity->text;
        }
    }
    return result;
}

std::string DecodeEntities(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const auto* entity = std::ranges::find_if(
            kCharacterEntities, [&](const auto& known) { return text.starts_with(known.text); });
        const bool known = entity != kCharacterEntities.end();
        result += known ? entity->character : text.front();
        text.remove_prefix(known ? entity->text.size() : 1);
    }
    return result;
}

}  // namespace vexa
