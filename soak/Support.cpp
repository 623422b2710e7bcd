#include "soak/Support.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>

namespace vexa::soak {

namespace {

namespace fs = std::filesystem;

std::string FolderOf(pid_t process) { return "/proc/" + std::to_string(process); }

std::size_t EntriesOf(const std::string& folder) {
    std::error_code error;
    std::size_t count = 0;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        ++count;
    }
    return count;
}

// The text after `key` in the process's status; empty when there is none.
std::string StatusOf(pid_t process, const std::string& key) {
    std::ifstream status(FolderOf(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key)) return line.substr(line.find_first_not_of(" \t", key.size()));
    }
    return "";
}

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");

}  // namespace

void CatchInterrupts() {
    struct sigaction action {};
    action.sa_handler = [](int) {
        if (interrupted.exchange(true)) ::_exit(kInterruptedStatus);
    };
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(number, &action, nullptr);
}

bool IsInterrupted() { return interrupted; }

ProcessFigures FiguresOf(pid_t process) {
    const std::string memory = StatusOf(process, "RssAnon:");
    return {EntriesOf(FolderOf(process) + "/task"), EntriesOf(FolderOf(process) + "/fd"),
            memory.empty() ? 0 : std::stoul(memory)};
}

pid_t LastChildOf(pid_t parent) {
    std::ifstream children(FolderOf(parent) + "/task/" + std::to_string(parent) + "/children");
    pid_t last = -1;
    for (pid_t child = -1; children >> child;) last = child;
    return last;
}

bool IsRunning(pid_t process) {
    const std::string state = StatusOf(process, "State:");
    return !state.empty() && state.front() != 'Z' && state.front() != 'X';
}

std::string ToText(const ProcessFigures& figures) {
    return std::to_string(figures.threads) + " threads, " + std::to_string(figures.descriptors) +
           " descriptors, " + std::to_string(figures.memoryKiB) + " KiB";
}

}  // namespace vexa::soak
