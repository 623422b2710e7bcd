#include "Prompt.h"

#include <editline/readline.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "../Interrupt.h"

namespace {

// The line editor's callbacks have no context: this is it.
struct Editing {
    Prompt::Complete complete;
    std::vector<std::string> candidates;
    std::size_t next = 0;
    bool isLineHere = false;
    bool isEnd = false;  // of the input, in place of a line
    std::string line;
};

Editing editing;
termios before;  // the terminal as it was; read by a signal handler

void RestoreTerminal() { tcsetattr(STDIN_FILENO, TCSANOW, &before); }

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

void TakeLine(char* line) {
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
    tcgetattr(STDIN_FILENO, &before);
    OnSecondInterrupt(RestoreTerminal);
    rl_readline_name = "vexa-host";
    rl_attempted_completion_function = CompleteWord;
    rl_catch_signals = 0;
    using_history();
}

Prompt::~Prompt() {
    rl_callback_handler_remove();
    RestoreTerminal();
    OnSecondInterrupt(nullptr);
}

std::optional<std::string> Prompt::Read(const std::string& prompt) {
    constexpr int kLookUpMs = 50;
    editing.isLineHere = false;
    rl_callback_handler_install(prompt.c_str(), TakeLine);
    while (!editing.isLineHere) {
        pollfd entry{STDIN_FILENO, POLLIN, 0};
        if (poll(&entry, 1, kLookUpMs) > 0) rl_callback_read_char();
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
