// Standard output for people: colour and line lengths fit for where it goes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

enum class Style { kPlain, kBold, kDim, kGood, kBad, kToUnit, kFromUnit, kUnit, kApplications };

class Console {
  public:
    /// Looks at standard output, NO_COLOR and the locale.
    Console();

    [[nodiscard]] bool IsTerminal() const { return terminal; }

    /// True when block characters can be shown.
    [[nodiscard]] bool HasUnicode() const { return unicode; }

    /// Columns of the terminal now; a very large number when there is none.
    [[nodiscard]] std::size_t Width() const;

    /// `text` with the colours of `style`, or as it is without colour.
    [[nodiscard]] std::string Styled(Style style, std::string_view text) const;

    /// Prints one line: `label` in `style`, then `text` and, dim, `detail`. In a terminal it is cut
    /// so that it stays one line. Control characters come out as "?".
    void Line(Style style, std::string_view label, std::string_view text,
              std::string_view detail = {}) const;

  private:
    bool terminal;
    bool colour;
    bool unicode;
};
