#include "UnitProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <thread>

namespace {

using vexahost::Error;
using vexahost::ErrorKind;

// In the new process: becomes the program, or reports why not through `report` and ends.
[[noreturn]] void BecomeProgram(char* const* arguments, int output, int report) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) signal(number, SIG_DFL);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (nothing >= 0) dup2(nothing, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    execvp(arguments[0], arguments);
    const int error = errno;
    if (write(report, &error, sizeof error) < 0) _exit(126);
    _exit(127);
}

Error CannotStart(const std::string& program, int error) {
    return {ErrorKind::kInvalidArgument, "cannot start " + program + ": " + std::strerror(error)};
}

}  // namespace

vexahost::Expected<std::unique_ptr<UnitProcess>> UnitProcess::Start(
    const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);

    std::array<int, 2> output{};
    std::array<int, 2> report{};
    if (pipe2(output.data(), O_CLOEXEC) != 0) return CannotStart(command[0], errno);
    if (pipe2(report.data(), O_CLOEXEC) != 0) {
        const int error = errno;
        close(output[0]);
        close(output[1]);
        return CannotStart(command[0], error);
    }
    const pid_t child = fork();
    if (child == 0) BecomeProgram(arguments.data(), output[1], report[1]);
    int error = child < 0 ? errno : 0;
    close(output[1]);
    close(report[1]);
    // Ends with nothing when the program has been started.
    if (child > 0 && read(report[0], &error, sizeof error) < 0) error = errno;
    close(report[0]);
    if (error != 0) {
        close(output[0]);
        if (child > 0) waitpid(child, nullptr, 0);
        return CannotStart(command[0], error);
    }
    return std::make_unique<UnitProcess>(child, output[0]);
}

UnitProcess::UnitProcess(pid_t child, int output) : process(child), log(output) {}

UnitProcess::~UnitProcess() {
    // Also when the program itself has ended: what it started may still hold its output open.
    kill(-process, SIGKILL);
    if (!status) waitpid(process, nullptr, 0);
}

void UnitProcess::Terminate() const {
    if (!status) kill(process, SIGTERM);
}

std::optional<int> UnitProcess::Wait(std::chrono::milliseconds timeout) {
    constexpr std::chrono::milliseconds kPoll{10};
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!status) {
        int word = 0;
        if (waitpid(process, &word, WNOHANG) == process) {
            status = WIFEXITED(word) ? WEXITSTATUS(word) : 128 + WTERMSIG(word);
        } else if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        } else {
            std::this_thread::sleep_for(kPoll);
        }
    }
    return status;
}
