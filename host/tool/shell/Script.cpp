#include "tool/shell/Script.h"

#include <chrono>
#include <cstdio>

#include "tool/Exit.h"
#include "tool/Parse.h"

namespace vexahost::tool {

namespace {

using Clock = std::chrono::steady_clock;

std::string Place(const std::string& name, std::size_t number) {
    return name + ":" + std::to_string(number);
}

}  // namespace

std::string ScriptLine::Text() const {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

Error ScriptReader::Wrong(std::size_t line, const std::string& why) const {
    return {ErrorKind::kInvalidArgument, Place(name, line) + ": " + why};
}

Expected<std::optional<ScriptLine>> ScriptReader::Next() {
    bool isEnd = false;
    auto line = Read(0, isEnd);
    if (isEnd) return Wrong(number, "\"end\" without \"repeat\"");
    return line;
}

// One line, with its body if it is a "repeat"; `isEnd` is set at an "end".
Expected<std::optional<ScriptLine>> ScriptReader::Read(std::size_t depth, bool& isEnd) {
    constexpr std::size_t kMostDepth = 100;
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    std::optional<Words> words;
    do {
        const auto text = nextLine(depth > 0);
        if (!text) return std::optional<ScriptLine>{};
        const bool isMarked = ++number == 1 && text->starts_with(kByteOrderMark);
        words = SplitLine(std::string_view(*text).substr(isMarked ? kByteOrderMark.size() : 0));
        if (!words) return Wrong(number, "a quote has no end");
    } while (words->empty());
    ScriptLine line{number, std::move(*words), {}};
    isEnd = line.words.front() == "end";
    if (line.words.front() != "repeat") return std::optional(std::move(line));
    if (depth == kMostDepth) return Wrong(number, "too many \"repeat\" in one another");
    for (;;) {
        bool isBodyEnd = false;
        auto inner = Read(depth + 1, isBodyEnd);
        if (!inner) return inner;
        if (isBodyEnd) return std::optional(std::move(line));
        if (!*inner) return Wrong(line.number, "\"repeat\" without \"end\"");
        line.body.push_back(std::move(**inner));
    }
}

namespace {

class Runner {
  public:
    Runner(Session& runSession, const std::string& scriptName, bool isVerbose)
        : session(runSession), name(scriptName), verbose(isVerbose) {}

    enum class End { kReached, kRoundSkipped, kQuit, kFailed, kInterrupted };

    End Run(const ScriptLine& line) {
        return line.words.front() == "repeat" ? Repeat(line) : RunCommand(line);
    }

    [[nodiscard]] ExitCode FailureCode() const { return failureCode; }
    [[nodiscard]] const std::string& Failure() const { return failure; }
    [[nodiscard]] std::size_t Commands() const { return commands; }

  private:
    End RunCommand(const ScriptLine& line) {
        if (IsInterrupted()) return End::kInterrupted;
        ++commands;
        if (verbose) std::printf("> %s\n", line.Text().c_str());
        const Outcome outcome = session.Run(line.words);
        if (!outcome.text.empty()) std::printf("%s\n", outcome.text.c_str());
        std::fflush(stdout);
        if (IsInterrupted()) return End::kInterrupted;
        if (outcome.error) return Fail(line, *outcome.error);
        if (outcome.quits) return End::kQuit;
        return outcome.skipsRound ? End::kRoundSkipped : End::kReached;
    }

    End Fail(const ScriptLine& line, const Error& error) {
        Error placed = error;
        placed.message = Place(name, line.number) + ": " + line.Text() + ": " + error.message;
        failure = error.message;
        failureCode = ReportError(placed);
        return End::kFailed;
    }

    End Repeat(const ScriptLine& line) {
        const std::string& howLong = line.words.size() == 2 ? line.words[1] : "";
        const auto rounds = ParseNumber<std::size_t>(howLong);
        const auto time = ParseDuration(howLong);
        if (!rounds && !time) {
            return Fail(line, {ErrorKind::kInvalidArgument, "usage: repeat TIME|N .. end"});
        }
        const auto end = Clock::now() + time.value_or(std::chrono::milliseconds{0});
        for (std::size_t round = 0; rounds ? round < *rounds : Clock::now() < end; ++round) {
            if (IsInterrupted()) return End::kInterrupted;
            if (line.body.empty()) break;
            for (const ScriptLine& inner : line.body) {
                const End ended = Run(inner);
                if (ended == End::kRoundSkipped) break;
                if (ended != End::kReached) return ended;
            }
        }
        return End::kReached;
    }

    Session& session;
    const std::string& name;
    const bool verbose;
    ExitCode failureCode = kExitDone;
    std::string failure;
    std::size_t commands = 0;
};

}  // namespace

ExitCode RunScript(Session& session, ScriptReader& reader, bool verbose, ScriptReport& report) {
    Runner runner(session, reader.Name(), verbose);
    for (;;) {
        const auto line = reader.Next();
        if (!line) return ReportError(line.error());
        if (!*line) break;
        const auto start = Clock::now();
        const auto end = runner.Run(**line);
        const auto add = [&](const std::string& failure) {
            report.Add(Place(reader.Name(), (*line)->number), (*line)->Text(), failure,
                       Clock::now() - start);
        };
        if (end == Runner::End::kInterrupted) {
            add("interrupted");
            return kExitInterrupted;
        }
        add(runner.Failure());
        if (end == Runner::End::kFailed) {
            // What is left is read only to be counted.
            for (auto rest = reader.Next(); rest && *rest && !IsInterrupted();
                 rest = reader.Next()) {
                report.AddSkipped(Place(reader.Name(), (*rest)->number), (*rest)->Text());
            }
            return runner.FailureCode();
        }
        if (end == Runner::End::kQuit) break;
    }
    std::printf("%s: %zu commands, all as expected\n", reader.Name().c_str(), runner.Commands());
    return kExitDone;
}

}  // namespace vexahost::tool
