#include "run/Program.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "model/Descriptor.h"
#include "run/UserError.h"

namespace vexa::unit {

namespace {

constexpr int kSignalExitBase = 128;

[[noreturn]] void Fail(const std::string& program, int error) {
    throw UserError("cannot run " + program + ": " + std::strerror(error));
}

// 0, or the errno that tells why `path` cannot be run.
int WhyNotRunnable(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return errno;
    if (!S_ISREG(status.st_mode)) return EACCES;
    return ::access(path.c_str(), X_OK) == 0 ? 0 : errno;
}

sigset_t PassedSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&signals, signal);
    return signals;
}

// A key press signals every process of the terminal's foreground group, the program included.
bool IsFromTerminal(const siginfo_t& signal) { return signal.si_code == SI_KERNEL; }

}  // namespace

std::string FindProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) {
        if (const int error = WhyNotRunnable(name); error != 0) Fail(name, error);
        return name;
    }
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? "" : path);
    for (std::string folder; std::getline(folders, folder, ':');) {
        std::string candidate = (folder.empty() ? "." : folder) + "/" + name;
        if (WhyNotRunnable(candidate) == 0) return candidate;
    }
    Fail(name, ENOENT);
}

Program::Program(const ProgramCall& call) : parent(::getpid()) {
    const sigset_t passed = PassedSignals();
    sigprocmask(SIG_BLOCK, &passed, &formerMask);

    // The new process reports a failed start through the pipe; a good one closes it.
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) Fail(call.path, errno);
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    child = ::fork();
    if (child < 0) Fail(call.path, errno);
    if (child == 0) BecomeProgram(call, writing.Get());
    writing = Descriptor();
    int error = 0;
    if (::read(reading.Get(), &error, sizeof error) == sizeof error) {
        ::waitpid(child, nullptr, 0);
        Fail(call.path, error);
    }
}

void Program::BecomeProgram(const ProgramCall& call, int failurePipe) const {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent)
        std::_Exit(EXIT_FAILURE);  // the parent was faster than the line above
    for (const int descriptor : call.inherited) ::fcntl(descriptor, F_SETFD, 0);
    for (const auto& [name, value] : call.changes) {
        if (value.empty()) {
            ::unsetenv(name.c_str());
        } else {
            ::setenv(name.c_str(), value.c_str(), 1);
        }
    }
    std::vector<char*> arguments;
    arguments.reserve(call.arguments.size() + 1);
    for (const auto& argument : call.arguments) {
        arguments.push_back(const_cast<char*>(argument.c_str()));  // execv's, which leaves it alone
    }
    arguments.push_back(nullptr);
    sigprocmask(SIG_SETMASK, &formerMask, nullptr);
    ::execv(call.path.c_str(), arguments.data());
    const int error = errno;
    [[maybe_unused]] const auto written = ::write(failurePipe, &error, sizeof error);
    std::_Exit(kUserErrorStatus);
}

int Program::Wait() {
    const sigset_t passed = PassedSignals();
    while (true) {
        siginfo_t signal{};
        if (sigwaitinfo(&passed, &signal) < 0) continue;
        if (signal.si_signo != SIGCHLD) {
            if (!IsFromTerminal(signal)) ::kill(child, signal.si_signo);
            continue;
        }
        int status = 0;
        if (::waitpid(child, &status, WNOHANG) != child) continue;
        if (WIFEXITED(status)) return WEXITSTATUS(status);
        if (WIFSIGNALED(status)) return kSignalExitBase + WTERMSIG(status);
    }
}

}  // namespace vexa::unit
