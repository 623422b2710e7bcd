#include "unit/RunningTool.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <utility>

namespace vexa::unit {

RunningTool::RunningTool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), VEXA_UNIT_PROGRAM);
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (auto& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) std::abort();
    pipe = Descriptor(ends[0]);
    const Descriptor writing(ends[1]);
    child = ::fork();
    if (child == 0) {
        ::dup2(writing.Get(), STDOUT_FILENO);
        ::dup2(writing.Get(), STDERR_FILENO);
        ::execv(pointers[0], pointers.data());
        std::_Exit(126);
    }
}

RunningTool::~RunningTool() {
    if (child < 0) return;
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

bool RunningTool::ReadMore() {
    std::array<char, 4096> bytes{};
    const auto got = ::read(pipe.Get(), bytes.data(), bytes.size());
    if (got <= 0) return false;
    output.append(bytes.data(), static_cast<std::size_t>(got));
    return true;
}

bool RunningTool::AwaitOutput(const std::string& text) {
    while (output.find(text) == std::string::npos) {
        if (!ReadMore()) return false;
    }
    return true;
}

void RunningTool::Send(int signal) const { ::kill(child, signal); }

int RunningTool::Wait() {
    while (ReadMore()) {
    }
    int status = 0;
    ::waitpid(std::exchange(child, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace vexa::unit
