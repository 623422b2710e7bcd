#include "tool/Console.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace vexahost::tool {

namespace {

// Details begin at this column unless the text is longer.
constexpr std::size_t kTextColumns = 44;

const char* ColourOf(Style style) {
    switch (style) {
        case Style::kPlain:
            return "";
        case Style::kBold:
            return "\033[1m";
        case Style::kDim:
            return "\033[2m";
        case Style::kGood:
            return "\033[32m";
        case Style::kBad:
            return "\033[1;31m";
        case Style::kToUnit:
            return "\033[36m";
        case Style::kFromUnit:
            return "\033[35m";
        case Style::kUnit:
            return "\033[33m";
        case Style::kApplications:
            return "\033[34m";
    }
    return "";
}

std::string Printable(std::string_view text) {
    std::string result(text);
    std::ranges::replace_if(
        result, [](char c) { return c < ' ' || c > '~'; }, '?');
    return result;
}

std::string Cut(std::string text, std::size_t columns) {
    if (text.size() <= columns) return text;
    constexpr std::string_view kMark = "..";
    if (columns <= kMark.size()) return text.substr(0, columns);
    return text.substr(0, columns - kMark.size()).append(kMark);
}

}  // namespace

Console::Console() : terminal(isatty(STDOUT_FILENO) == 1) {
    const char* noColour = std::getenv("NO_COLOR");
    const char* terminalType = std::getenv("TERM");
    terminal = terminal && terminalType != nullptr && std::string_view(terminalType) != "dumb";
    colour = terminal && (noColour == nullptr || *noColour == '\0');
    std::setlocale(LC_CTYPE, "");
    unicode = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
}

std::size_t Console::Width() const {
    winsize size{};
    if (!terminal) return std::numeric_limits<std::size_t>::max();
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
    return size.ws_col;
}

std::string Console::Styled(Style style, std::string_view text) const {
    if (!colour || style == Style::kPlain || text.empty()) return std::string(text);
    return ColourOf(style) + std::string(text) + "\033[0m";
}

void Console::Line(Style style, std::string_view label, std::string_view text,
                   std::string_view detail) const {
    const std::size_t width = Width() - std::min(Width(), label.size());
    std::string body = Printable(text);
    std::string tail = Printable(detail);
    if (!tail.empty()) {
        body.resize(std::max(body.size(), kTextColumns), ' ');
        tail.insert(0, "  ");
    }
    body = Cut(std::move(body), width);
    tail = Cut(std::move(tail), width - body.size());
    std::printf("%s%s%s\n", Styled(style, label).c_str(), body.c_str(),
                Styled(Style::kDim, tail).c_str());
    std::fflush(stdout);
}

}  // namespace vexahost::tool
