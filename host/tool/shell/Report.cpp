#include "tool/shell/Report.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vexahost::tool {

namespace {

Error CannotWrite(const std::string& path, int error) {
    return {ErrorKind::kInvalidArgument, "cannot write " + path + ": " + std::strerror(error)};
}

// XML has no way to write most control characters.
std::string Escaped(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            default:
                escaped += static_cast<unsigned char>(c) < ' ' ? '?' : c;
        }
    }
    return escaped;
}

// "#" begins a directive in TAP.
std::string TapText(std::string text) {
    std::ranges::replace(text, '#', '*');
    std::ranges::replace(text, '\n', ' ');
    return text;
}

std::string Attribute(const char* name, const std::string& value) {
    return std::string(" ") + name + "=\"" + Escaped(value) + "\"";
}

std::string SecondsText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", seconds);
    return text;
}

}  // namespace

Expected<ScriptReport> ScriptReport::Create(const std::string& path) {
    ScriptReport report;
    report.path = path;
    report.file.reset(std::fopen(path.c_str(), "we"));
    if (!report.file) return CannotWrite(path, errno);
    return report;
}

void ScriptReport::Add(std::string place, std::string command, std::string failure,
                       std::chrono::steady_clock::duration time) {
    tests.push_back({std::move(place), std::move(command), std::move(failure),
                     std::chrono::duration<double>(time).count(), false});
}

void ScriptReport::AddSkipped(std::string place, std::string command) {
    tests.push_back({std::move(place), std::move(command), {}, 0, true});
}

std::string ScriptReport::Tap() const {
    std::string text = "TAP version 13\n1.." + std::to_string(tests.size()) + "\n";
    std::size_t number = 0;
    for (const Test& test : tests) {
        text += (test.failure.empty() ? "ok " : "not ok ") + std::to_string(++number) + " - " +
                TapText(test.place + " " + test.command) +
                (test.isSkipped ? " # SKIP not reached" : "") + "\n";
        if (!test.failure.empty()) text += "# " + TapText(test.failure) + "\n";
    }
    return text;
}

std::string ScriptReport::JUnit(const std::string& script) const {
    std::string cases;
    std::size_t failures = 0;
    std::size_t skipped = 0;
    double seconds = 0;
    for (const Test& test : tests) {
        seconds += test.seconds;
        cases += "  <testcase" + Attribute("classname", test.place) +
                 Attribute("name", test.command) + Attribute("time", SecondsText(test.seconds));
        if (test.isSkipped) {
            ++skipped;
            cases += "><skipped/></testcase>\n";
        } else if (!test.failure.empty()) {
            ++failures;
            cases += "><failure" + Attribute("message", test.failure) + "/></testcase>\n";
        } else {
            cases += "/>\n";
        }
    }
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite" + Attribute("name", script) +
           Attribute("tests", std::to_string(tests.size())) +
           Attribute("failures", std::to_string(failures)) +
           Attribute("skipped", std::to_string(skipped)) + Attribute("time", SecondsText(seconds)) +
           ">\n" + cases + "</testsuite>\n";
}

Expected<Done> ScriptReport::Finish(const std::string& script) {
    if (!file) return Done{};
    const std::string text = path.ends_with(".xml") ? JUnit(script) : Tap();
    const bool isWritten = std::fwrite(text.data(), 1, text.size(), file.get()) == text.size() &&
                           std::fflush(file.get()) == 0;
    if (!isWritten) return CannotWrite(path, errno);
    return Done{};
}

}  // namespace vexahost::tool
