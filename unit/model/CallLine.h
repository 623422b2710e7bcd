// Puts a journal line together: Name(argument, ...) = result  # note
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "model/Export.h"

namespace vexa::unit {

class VEXA_UNIT_EXPORT CallLine {
  public:
    explicit CallLine(std::string_view function);

    CallLine& Number(std::int64_t value, std::string_view label = "");
    // In quotes, with what is not printable ASCII as \xNN.
    CallLine& Text(std::string_view text);
    // As it stands.
    CallLine& Word(std::string_view word);

    CallLine& Result(std::int64_t result);
    // After Result().
    CallLine& Note(std::string_view note);

    [[nodiscard]] std::string Line() const;

  private:
    std::string& NextArgument();

    std::string call;
    bool hasArguments = false;
    std::string tail;
};

// `text` as CallLine::Text writes it.
[[nodiscard]] VEXA_UNIT_EXPORT std::string QuotedText(std::string_view text);

}  // namespace vexa::unit
