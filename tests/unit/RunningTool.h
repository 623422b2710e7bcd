// vexa-unit as a child process of a test.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "model/Descriptor.h"

namespace vexa::unit {

class RunningTool {
  public:
    // Starts vexa-unit with these arguments.
    explicit RunningTool(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), VEXA_UNIT_PROGRAM);
        std::vector<char*> pointers;
        pointers.reserve(arguments.size() + 1);
        for (auto& argument : arguments) pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) return;
        pipe = Descriptor(ends[0]);
        const Descriptor writing(ends[1]);
        child = ::fork();
        if (child != 0) return;
        ::dup2(writing.Get(), STDOUT_FILENO);
        ::dup2(writing.Get(), STDERR_FILENO);
        ::execv(pointers[0], pointers.data());
        ::_exit(126);
    }
    RunningTool(const RunningTool&) = delete;
    RunningTool& operator=(const RunningTool&) = delete;
    // Kills it if it is still running.
    ~RunningTool() {
        if (child < 0) return;
        Send(SIGKILL);
        ::waitpid(child, nullptr, 0);
    }

    // Reads standard output and error until `text` has come in either; false when that ended first.
    bool AwaitOutput(const std::string& text) {
        while (output.find(text) == std::string::npos) {
            if (!ReadMore()) return false;
        }
        return true;
    }

    // All output so far.
    [[nodiscard]] const std::string& Output() const { return output; }

    void Send(int signal) const { ::kill(child, signal); }

    // Waits for its end. Its exit status, or the negative number of the signal that ended it. The
    // output is complete afterwards: whoever else had it open has ended as well.
    int Wait() {
        while (ReadMore()) {
        }
        int status = 0;
        ::waitpid(std::exchange(child, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

  private:
    // False at the end of the output.
    bool ReadMore() {
        std::array<char, 4096> bytes{};
        const auto got = ::read(pipe.Get(), bytes.data(), bytes.size());
        if (got <= 0) return false;
        output.append(bytes.data(), static_cast<std::size_t>(got));
        return true;
    }

    pid_t child = -1;
    Descriptor pipe;
    std::string output;
};

}  // namespace vexa::unit
