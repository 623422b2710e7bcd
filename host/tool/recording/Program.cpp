#include "Program.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

namespace {

constexpr char kUnitVariable[] = "VEXA_UNIT_DIR";
constexpr std::chrono::milliseconds kPoll{20};
constexpr std::chrono::seconds kStopPatience{5};

// The environment with the unit's directory in it.
std::vector<std::string> EnvironmentWith(const std::string& unitDirectory) {
    const std::string start = std::string(kUnitVariable) + "=";
    std::vector<std::string> entries;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!std::string_view(*entry).starts_with(start)) entries.emplace_back(*entry);
    }
    entries.push_back(start + unitDirectory);
    return entries;
}

std::vector<char*> Pointers(const std::vector<std::string>& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (const auto& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

vexahost::Expected<Program> Program::Start(const std::vector<std::string>& command,
                                           const std::string& unitDirectory) {
    const auto environment = EnvironmentWith(unitDirectory);
    pid_t process = -1;
    const int error = posix_spawnp(&process, command[0].c_str(), nullptr, nullptr,
                                   Pointers(command).data(), Pointers(environment).data());
    if (error != 0) {
        return vexahost::Error{vexahost::ErrorKind::kInvalidArgument,
                               "cannot start " + command[0] + ": " + std::strerror(error)};
    }
    return Program(process);
}

std::optional<int> Program::Status() {
    int word = 0;
    if (!status && waitpid(process, &word, WNOHANG) == process) {
        status = WIFEXITED(word) ? WEXITSTATUS(word) : 128 + WTERMSIG(word);
    }
    return status;
}

int Program::Stop() {
    if (!Status()) kill(process, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + kStopPatience;
    while (!Status()) {
        if (std::chrono::steady_clock::now() > deadline) kill(process, SIGKILL);
        std::this_thread::sleep_for(kPoll);
    }
    return *status;
}
