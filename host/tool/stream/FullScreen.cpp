#include "tool/stream/FullScreen.h"

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string_view>

namespace vexahost::tool {

namespace {

// The alternate screen, without a cursor and without lines that wrap.
constexpr std::string_view kEnter = "\033[?1049h\033[?25l\033[?7l";
constexpr std::string_view kLeave = "\033[?7h\033[?25h\033[?1049l";

std::atomic<bool> stopAsked{false};
std::atomic<bool> keyboardChanged{false};
termios keyboard;  // former settings; read by a signal handler once keyboardChanged is set

void OnStopSignal(int) { stopAsked = true; }

void SetStopHandler(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTSTP, &action, nullptr);
}

void WriteAll(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(STDOUT_FILENO, text.data(), text.size());
        if (count <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

}  // namespace

FullScreen::FullScreen() : restoring(&FullScreen::Leave) {
    std::fflush(stdout);
    Enter();
    SetStopHandler(OnStopSignal);
}

FullScreen::~FullScreen() {
    Leave();
    SetStopHandler(SIG_DFL);
}

// Keys arrive one by one and are not echoed; those that send signals go on doing so.
void FullScreen::Enter() {
    if (tcgetattr(STDIN_FILENO, &keyboard) == 0) {
        termios keys = keyboard;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        keyboardChanged = tcsetattr(STDIN_FILENO, TCSANOW, &keys) == 0;
    }
    WriteAll(kEnter);
}

// Also called by a signal handler.
void FullScreen::Leave() {
    WriteAll(kLeave);
    if (keyboardChanged.exchange(false)) tcsetattr(STDIN_FILENO, TCSANOW, &keyboard);
}

std::size_t FullScreen::Height() const {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0) return 24;
    return size.ws_row;
}

// One write, and each line is cleared only after its text: nothing flickers.
void FullScreen::Draw(const std::vector<std::string>& lines) {
    std::string page = "\033[H";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        page += (i == 0 ? "" : "\r\n") + lines[i] + "\033[K";
    }
    WriteAll(page + "\033[J");
}

std::optional<char> FullScreen::NextKey() {
    constexpr int kSequenceMs = 20;  // within which the rest of an arrow key's sequence comes
    pollfd entry{STDIN_FILENO, POLLIN, 0};
    char key = 0;
    const auto read1 = [&](int wait) {
        return keyboardChanged && poll(&entry, 1, wait) == 1 && read(STDIN_FILENO, &key, 1) == 1;
    };
    if (!read1(0)) return std::nullopt;
    if (key != '\033') return key;
    for (int rest = 0; rest < 2; ++rest) {
        if (!read1(kSequenceMs)) return '\033';
    }
    if (key == 'A') return 'k';
    if (key == 'B') return 'j';
    return '\033';
}

bool FullScreen::StopIfAsked() {
    if (!stopAsked.exchange(false)) return false;
    Leave();
    raise(SIGSTOP);
    Enter();
    return true;
}

}  // namespace vexahost::tool
