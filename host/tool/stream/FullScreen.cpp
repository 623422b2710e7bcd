#include "FullScreen.h"

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string_view>

#include "../Interrupt.h"

namespace {

// The alternate screen, without a cursor and without lines that wrap.
constexpr std::string_view kEnter = "\033[?1049h\033[?25l\033[?7l";
constexpr std::string_view kLeave = "\033[?7h\033[?25h\033[?1049l";

std::atomic<bool> stopAsked{false};
std::atomic<bool> keyboardChanged{false};
termios keyboard;  // as it was; read by a signal handler once keyboardChanged is set

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

FullScreen::FullScreen() {
    std::fflush(stdout);
    OnSecondInterrupt(&FullScreen::Leave);
    Enter();
    SetStopHandler(OnStopSignal);
}

FullScreen::~FullScreen() {
    Leave();
    OnSecondInterrupt(nullptr);
    SetStopHandler(SIG_DFL);
}

// What is typed is taken key by key and not shown; the signals' keys stay what they are.
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

// In one write, and each line cleared only behind its text, so that nothing flickers.
void FullScreen::Draw(const std::vector<std::string>& lines) {
    std::string page = "\033[H";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        page += (i == 0 ? "" : "\r\n") + lines[i] + "\033[K";
    }
    WriteAll(page + "\033[J");
}

bool FullScreen::IsQuitTyped() {
    pollfd entry{STDIN_FILENO, POLLIN, 0};
    while (keyboardChanged && !quit && poll(&entry, 1, 0) == 1) {
        char key = 0;
        if (read(STDIN_FILENO, &key, 1) != 1) break;
        quit = key == 'q' || key == 'Q';
    }
    return quit;
}

bool FullScreen::StopIfAsked() {
    if (!stopAsked.exchange(false)) return false;
    Leave();
    raise(SIGSTOP);
    Enter();
    return true;
}
