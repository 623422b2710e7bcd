#include "tool/shell/Script.h"

#include <chrono>
#include <cstdio>
#include <istream>

#include "tool/Exit.h"
#include "tool/Parse.h"

namespace vexahost::tool {

namespace {

using Clock = std::chrono::steady_clock;

std::string Place(const std::string& name, std::size_t number) {
    return name + ":" + std::to_string(number) + ": ";
}

std::string Joined(const Words& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

class Reader {
  public:
    Reader(std::istream& source, const std::string& scriptName) : input(source), name(scriptName) {}

    // The lines up to the "end" of the "repeat" in line `opened`; with 0 up to the end of the file.
    Expected<std::vector<ScriptLine>> Read(std::size_t opened = 0) {
        std::vector<ScriptLine> lines;
        for (std::string text; std::getline(input, text);) {
            ++number;
            auto words = SplitLine(text);
            if (!words) return Wrong(number, "a quote has no end");
            if (words->empty()) continue;
            if (words->front() == "end") {
                if (opened != 0) return lines;
                return Wrong(number, "\"end\" without \"repeat\"");
            }
            lines.push_back({number, std::move(*words), {}});
            if (lines.back().words.front() != "repeat") continue;
            auto body = Read(number);
            if (!body) return body;
            lines.back().body = std::move(*body);
        }
        if (opened != 0) return Wrong(opened, "\"repeat\" without \"end\"");
        return lines;
    }

  private:
    [[nodiscard]] Error Wrong(std::size_t line, const std::string& why) const {
        return {ErrorKind::kInvalidArgument, Place(name, line) + why};
    }

    std::istream& input;
    const std::string& name;
    std::size_t number = 0;
};

class Runner {
  public:
    Runner(Session& runSession, const std::string& scriptName, bool isVerbose)
        : session(runSession), name(scriptName), verbose(isVerbose) {}

    enum class End { kReached, kRoundSkipped, kQuit, kFailed, kInterrupted };

    End Run(const std::vector<ScriptLine>& lines) {
        for (const ScriptLine& line : lines) {
            const End end = line.words.front() == "repeat" ? Repeat(line) : RunCommand(line);
            if (end != End::kReached) return end;
        }
        return End::kReached;
    }

    [[nodiscard]] ExitCode FailureCode() const { return failure; }
    [[nodiscard]] std::size_t Commands() const { return commands; }

  private:
    End RunCommand(const ScriptLine& line) {
        if (IsInterrupted()) return End::kInterrupted;
        ++commands;
        if (verbose) std::printf("> %s\n", Joined(line.words).c_str());
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
        placed.message = Place(name, line.number) + Joined(line.words) + ": " + error.message;
        failure = ReportError(placed);
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
            const End ended = Run(line.body);
            if (ended != End::kReached && ended != End::kRoundSkipped) return ended;
            if (line.body.empty()) break;
        }
        return End::kReached;
    }

    Session& session;
    const std::string& name;
    const bool verbose;
    ExitCode failure = kExitDone;
    std::size_t commands = 0;
};

}  // namespace

Expected<std::vector<ScriptLine>> ReadScript(std::istream& input, const std::string& name) {
    return Reader(input, name).Read();
}

ExitCode RunScript(Session& session, const std::vector<ScriptLine>& lines, const std::string& name,
                   bool verbose) {
    Runner runner(session, name, verbose);
    switch (runner.Run(lines)) {
        case Runner::End::kFailed:
            return runner.FailureCode();
        case Runner::End::kInterrupted:
            return kExitInterrupted;
        default:
            std::printf("%s: %zu commands, all as expected\n", name.c_str(), runner.Commands());
            return kExitDone;
    }
}

}  // namespace vexahost::tool
