// A program that this one starts, watches and ends.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "testkit/OutputLog.h"
#include "testkit/Wait.h"

namespace vexa::testkit {

// What to start, and how.
struct ProcessCall {
    enum class Output {
        kShared,     // this program's own standard output and error
        kToError,    // both in this program's own standard error
        kCaptured,   // both in the child's OutputLog
        kDiscarded,  // /dev/null
    };

    std::vector<std::string> command;  // the program first; looked up in PATH if it has no slash
    std::vector<std::pair<std::string, std::string>> environment{};  // changes; empty value: unset
    Output output = Output::kCaptured;
    std::size_t keptOutput = OutputLog::kKeepAll;  // bytes, as for OutputLog
    std::vector<int> inherited{};    // descriptors that stay open although marked close-on-exec
    bool ownGroup = false;           // a process group of its own, so that Ctrl-C does not reach it
    bool leavesGroup = false;        // with that, once it has ended: what it started goes on
    bool withoutInput = false;       // standard input is /dev/null
    bool keepIgnored = false;        // signals that are ignored here are ignored in the child, too
    int deathSignal = SIGKILL;       // the child gets it when the starting thread ends; 0: none
    const sigset_t* mask = nullptr;  // signal mask in the child; null: this thread's
};

// One thread at a time.
class ChildProcess {
  public:
    // Starts the program. Throws std::system_error, with "cannot start <program>" in what(), when
    // that fails, also when the program cannot be executed.
    explicit ChildProcess(const ProcessCall& call);

    // Kills the program, with its group if it has its own, and waits for its end.
    ~ChildProcess();
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&&) = delete;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] pid_t Id() const { return process; }

    // Sends a signal, unless the program has ended.
    void Signal(int number);

    // Its exit status, 128 plus the number of the signal that ended it; nothing while it runs.
    std::optional<int> Status();

    // Waits for the end. Nothing when it still runs after `timeout`.
    std::optional<int> Wait(Milliseconds timeout);

    // SIGTERM, then SIGKILL when it still runs after `patience`. The exit status.
    int Stop(Milliseconds patience);

    // What it has printed; only with Output::kCaptured.
    [[nodiscard]] OutputLog& Log() { return *log; }

  private:
    pid_t process = -1;
    bool ownGroup;
    bool leavesGroup;
    std::optional<int> status;  // once it has ended
    std::unique_ptr<OutputLog> log;
};

// Runs a program to its end.
struct Finished {
    int status;
    std::string output;  // standard output and error
};
[[nodiscard]] Finished RunToEnd(std::vector<std::string> command);
// The same with a command line for the shell.
[[nodiscard]] Finished RunShell(const std::string& commandLine);

// Runs a function in a copy of this process, which ends with the result as its exit status, without
// any clean-up. This process must have no other threads.
//
// Starts it: the process's id; -1, with errno, when it cannot be started.
[[nodiscard]] pid_t StartApart(const std::function<int()>& body);
// Also waits for its end: the status as waitpid gives it; nothing, with errno, when it was not run.
[[nodiscard]] std::optional<int> RunApart(const std::function<int()>& body);

}  // namespace vexa::testkit
