#include "model/CallLine.h"

namespace vexa::unit {

std::string QuotedText(std::string_view text) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string quoted = "\"";
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte < 0x20 || byte > 0x7E) {
            quoted += "\\x";
            quoted += digits[byte >> 4U];
            quoted += digits[byte & 0xFU];
            continue;
        }
        if (letter == '"' || letter == '\\') quoted += '\\';
        quoted += letter;
    }
    return quoted + "\"";
}

CallLine::CallLine(std::string_view function) : call(std::string(function) + "(") {}

std::string& CallLine::NextArgument() {
    if (hasArguments) call += ", ";
    hasArguments = true;
    return call;
}

CallLine& CallLine::Number(std::int64_t value, std::string_view label) {
    auto& line = NextArgument();
    if (!label.empty()) line += std::string(label) + " ";
    line += std::to_string(value);
    return *this;
}

CallLine& CallLine::Text(std::string_view text) {
    NextArgument() += QuotedText(text);
    return *this;
}

CallLine& CallLine::Word(std::string_view word) {
    NextArgument() += word;
    return *this;
}

CallLine& CallLine::Result(std::int64_t result) {
    tail += " = " + std::to_string(result);
    return *this;
}

CallLine& CallLine::Note(std::string_view note) {
    tail += "  # " + std::string(note);
    return *this;
}

std::string CallLine::Line() const { return call + ")" + tail; }

}  // namespace vexa::unit
