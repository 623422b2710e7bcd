#include "tool/shell/Prompt.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>

#include "tool/Exit.h"

#ifdef VEXA_HOST_EDITLINE
#include <editline/readline.h>
#endif

namespace vexahost::tool {

#ifdef VEXA_HOST_EDITLINE

namespace {

// For the line editor's callbacks, which have no context argument.
struct Editing {
    Prompt::Complete complete;
    std::vector<std::string> candidates;
    std::size_t next = 0;
    bool isLineHere = false;
    bool isEnd = false;  // of the input, in place of a line
    std::string line;
};

Editing editing;
std::string historyFile;  // empty: it is not kept
std::optional<AtSecondInterrupt> restoring;

// The history's file in the user's folder for state, which is made if need be; empty without one.
std::string HistoryFile() {
    const char* const state = std::getenv("XDG_STATE_HOME");
    const char* const home = std::getenv("HOME");
    std::filesystem::path folder;
    if (state != nullptr && *state == '/') {
        folder = state;
    } else if (home != nullptr && *home == '/') {
        folder = std::filesystem::path(home) / ".local" / "state";
    } else {
        return "";
    }
    folder /= "vexa-host";
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    return error ? "" : (folder / "history").string();
}

termios terminalBefore;  // former terminal settings; read by a signal handler

void RestoreTerminal() { tcsetattr(STDIN_FILENO, TCSANOW, &terminalBefore); }

char* NextCandidate(const char* text, int state) {
    if (state == 0) editing.next = 0;
    while (editing.next < editing.candidates.size()) {
        const std::string& candidate = editing.candidates[editing.next++];
        if (candidate.starts_with(text)) return strdup(candidate.c_str());
    }
    return nullptr;
}

char** CompleteWord(const char* text, int start, int /*end*/) {
    editing.candidates = editing.complete(start == 0);
    rl_attempted_completion_over = 1;  // no file names
    return rl_completion_matches(text, NextCandidate);
}

void OnLine(char* line) {
    editing.isLineHere = true;
    editing.isEnd = line == nullptr;
    if (line == nullptr) return;
    editing.line = line;
    if (*line != '\0') add_history(line);
    std::free(line);
    rl_callback_handler_remove();  // no prompt while the command runs
}

}  // namespace

Prompt::Prompt(Complete complete) {
    editing.complete = std::move(complete);
    tcgetattr(STDIN_FILENO, &terminalBefore);
    restoring.emplace(RestoreTerminal);
    rl_readline_name = "vexa-host";
    rl_attempted_completion_function = CompleteWord;
    rl_catch_signals = 0;
    using_history();
    historyFile = HistoryFile();
    if (!historyFile.empty()) read_history(historyFile.c_str());
}

Prompt::~Prompt() {
    constexpr int kMostLines = 1000;
    rl_callback_handler_remove();
    RestoreTerminal();
    stifle_history(kMostLines);
    if (!historyFile.empty()) write_history(historyFile.c_str());
    restoring.reset();
}

std::optional<std::string> Prompt::Read(const std::string& prompt) {
    constexpr int kInterruptPollMs = 50;
    editing.isLineHere = false;
    rl_callback_handler_install(prompt.c_str(), OnLine);
    while (!editing.isLineHere) {
        pollfd entry{STDIN_FILENO, POLLIN, 0};
        const bool isReady = poll(&entry, 1, kInterruptPollMs) > 0;
        const bool isGone = isReady && (entry.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
        if (IsTerminated() || isGone) return std::nullopt;
        if (isReady) rl_callback_read_char();
        if (!IsInterrupted()) continue;
        ForgetInterrupt();
        std::printf("^C\n");
        rl_callback_handler_remove();
        return "";
    }
    if (!editing.isEnd) return editing.line;
    std::printf("\n");
    return std::nullopt;
}

#else

// Without a line editor: the terminal's own editing, no history and no completion.
Prompt::Prompt(Complete) {}

Prompt::~Prompt() = default;

std::optional<std::string> Prompt::Read(const std::string& prompt) {
    std::printf("%s", prompt.c_str());
    std::fflush(stdout);
    std::string line;
    for (;;) {
        char c = 0;
        const ssize_t count = read(STDIN_FILENO, &c, 1);
        if (IsTerminated()) return std::nullopt;
        if (IsInterrupted()) {
            ForgetInterrupt();
            std::printf("\n");
            return "";
        }
        if (count <= 0) return std::nullopt;
        if (c == '\n') return line;
        line += c;
    }
}

#endif

}  // namespace vexahost::tool
