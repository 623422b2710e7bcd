#include "testkit/ChildProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <system_error>

namespace vexa::testkit {

namespace {

constexpr int kSignalExitBase = 128;
constexpr Milliseconds kForEver = std::chrono::hours(24);

[[noreturn]] void Fail(const ProcessCall& call, int error) {
    throw std::system_error(error, std::generic_category(), "cannot start " + call.command.at(0));
}

struct Pipe {
    Descriptor read;
    Descriptor write;
};

Pipe MakePipe(const ProcessCall& call) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) Fail(call, errno);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

// The child's environment: this program's with the changes.
std::vector<std::string> Environment(const ProcessCall& call) {
    std::vector<std::string> entries;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        const auto isChanged = [&](const auto& change) {
            return text.substr(0, text.find('=')) == change.first;
        };
        if (std::ranges::none_of(call.environment, isChanged)) entries.emplace_back(text);
    }
    for (const auto& [name, value] : call.environment) {
        if (!value.empty()) entries.push_back(std::string(name).append("=").append(value));
    }
    return entries;
}

// As execve wants them: it leaves the words alone.
std::vector<char*> Pointers(const std::vector<std::string>& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (const auto& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

// A launcher may have SIGCHLD ignored. Then nobody would learn of a child's end, or its status.
void KeepStatusOfChildren() {
    struct sigaction action {};
    ::sigaction(SIGCHLD, nullptr, &action);
    const bool isIgnored = action.sa_handler == SIG_IGN || (action.sa_flags & SA_NOCLDWAIT) != 0;
    if (isIgnored) ::signal(SIGCHLD, SIG_DFL);
}

// In the new process: becomes the program, or reports the error number through `report`. It
// allocates nothing, since another thread may have held the allocator's lock.
[[noreturn]] void BecomeProgram(const ProcessCall& call, char* const* arguments,
                                char* const* environment, pid_t parent, int output, int report) {
    if (call.ownGroup) ::setpgid(0, 0);
    if (call.deathSignal != 0) ::prctl(PR_SET_PDEATHSIG, call.deathSignal);
    if (::getppid() != parent) ::_exit(EXIT_FAILURE);  // the parent ended before the line above
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        if (!call.keepIgnored) ::signal(number, SIG_DFL);
    }
    for (const int descriptor : call.inherited) ::fcntl(descriptor, F_SETFD, 0);
    if (call.withoutInput) {
        const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (nothing >= 0) ::dup2(nothing, STDIN_FILENO);
    }
    if (call.output == ProcessCall::Output::kDiscarded) output = ::open("/dev/null", O_WRONLY);
    if (call.output == ProcessCall::Output::kToError) output = STDERR_FILENO;
    if (output >= 0) {
        ::dup2(output, STDOUT_FILENO);
        ::dup2(output, STDERR_FILENO);
    }
    if (call.mask != nullptr) ::sigprocmask(SIG_SETMASK, call.mask, nullptr);
    ::execvpe(arguments[0], arguments, environment);
    const int error = errno;
    [[maybe_unused]] const ssize_t written = ::write(report, &error, sizeof error);
    ::_exit(EXIT_FAILURE);
}

}  // namespace

ChildProcess::ChildProcess(const ProcessCall& call)
    : ownGroup(call.ownGroup), leavesGroup(call.leavesGroup) {
    const auto arguments = Pointers(call.command);
    const auto entries = Environment(call);
    const auto environment = Pointers(entries);

    // The new process reports a failed start through this pipe; a successful one closes it.
    Pipe report = MakePipe(call);
    Pipe output;
    if (call.output == ProcessCall::Output::kCaptured) {
        output = MakePipe(call);
    }
    const pid_t parent = ::getpid();
    KeepStatusOfChildren();
    process = ::fork();
    if (process < 0) Fail(call, errno);
    if (process == 0) {
        BecomeProgram(call, arguments.data(), environment.data(), parent, output.write.Get(),
                      report.write.Get());
    }
    report.write.Close();
    output.write.Close();
    int error = 0;
    ssize_t count = -1;
    do {
        count = ::read(report.read.Get(), &error, sizeof error);
    } while (count < 0 && errno == EINTR);
    if (count == sizeof error) {
        ::waitpid(process, nullptr, 0);
        Fail(call, error);
    }
    if (output.read) log = std::make_unique<OutputLog>(std::move(output.read), call.keptOutput);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : process(std::exchange(other.process, -1)),
      ownGroup(other.ownGroup),
      leavesGroup(other.leavesGroup),
      status(other.status),
      log(std::move(other.log)) {}

ChildProcess::~ChildProcess() {
    if (process < 0) return;
    // Its group also when the program itself has ended: what it started may still run.
    if (ownGroup && !(leavesGroup && Status())) ::kill(-process, SIGKILL);
    Signal(SIGKILL);
    Wait(kForEver);
}

void ChildProcess::Signal(int number) {
    if (!Status()) ::kill(process, number);
}

std::optional<int> ChildProcess::Status() {
    int word = 0;
    if (!status && ::waitpid(process, &word, WNOHANG) == process) {
        status = WIFEXITED(word) ? WEXITSTATUS(word) : kSignalExitBase + WTERMSIG(word);
    }
    return status;
}

std::optional<int> ChildProcess::Wait(Milliseconds timeout) {
    if (!WaitUntil(timeout, [&] { return Status().has_value(); })) return std::nullopt;
    return status;
}

int ChildProcess::Stop(Milliseconds patience) {
    Signal(SIGTERM);
    if (!Wait(patience)) Signal(SIGKILL);
    return Wait(kForEver).value_or(kSignalExitBase + SIGKILL);
}

Finished RunToEnd(std::vector<std::string> command) {
    ProcessCall call;
    call.command = std::move(command);
    ChildProcess child(call);
    child.Log().WaitForEnd(kForEver);
    const int status = child.Wait(kForEver).value_or(-1);
    return {status, child.Log().Text()};
}

Finished RunShell(const std::string& commandLine) {
    return RunToEnd({"/bin/sh", "-c", commandLine});
}

pid_t StartApart(const std::function<int()>& body) {
    KeepStatusOfChildren();
    const pid_t process = ::fork();
    if (process == 0) ::_exit(body());
    return process;
}

std::optional<int> RunApart(const std::function<int()>& body) {
    const pid_t process = StartApart(body);
    int word = 0;
    if (process < 0 || ::waitpid(process, &word, 0) != process) return std::nullopt;
    return word;
}

}  // namespace vexa::testkit
