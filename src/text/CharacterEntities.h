// Numeric character entities for text that goes into markup: "&#38;" for &, "&#62;" for >, "&#60;"
// for <. The service has no caller: they belong to the interface. Any thread.
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace vexa {

// What every numeric entity begins with.
inline constexpr std::string_view kEntityPrefix = "&#";

struct CharacterEntity {
    char character;
    std::string_view text;
};

// The set, the ampersand first.
inline constexpr std::array<CharacterEntity, 3> kCharacterEntities = {
    {{'&', "&#38;"}, {'>', "&#62;"}, {'<', "&#60;"}}};

// Returns `text` with the characters of the set written as entities.
std::string EncodeEntities(std::string_view text);

// Returns `text` with the entities of the set turned back into characters; all else, other
// entities included, stays as it is.
std::string DecodeEntities(std::string_view text);

}  // namespace vexa
