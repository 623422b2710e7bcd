// Standard output for people, with colour and line lengths that fit the terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vexahost::tool {

enum class Style { kPlain, kBold, kDim, kGood, kBad, kToUnit, kFromUnit, kUnit, kApplications };

class Console {
  public:
    // Goes by standard output, NO_COLOR and the locale.
    Console();

    [[nodiscard]] bool IsTerminal() const { return terminal; }

    // True when block characters can be shown.
    [[nodiscard]] bool HasUnicode() const { return unicode; }

    // Columns of the terminal at the moment; a very large number when there is none.
    [[nodiscard]] std::size_t Width() const;

    // `text` in the colours of `style`; unchanged when there is no colour.
    [[nodiscard]] std::string Styled(Style style, std::string_view text) const;

    // Prints one line: `label` in `style`, then `text`, then `detail` in dim. On a terminal it is
    // cut to the width. Control characters are printed as "?".
    void Line(Style style, std::string_view label, std::string_view text,
              std::string_view detail = {}) const;

  private:
    bool terminal;
    bool colour;
    bool unicode;
};

}  // namespace vexahost::tool
