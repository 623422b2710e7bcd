#include "ToolFixture.h"

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>

Ran RunShell(const std::string& commandLine) {
    const std::string line = "exec 2>&1; HOST='" VEXA_HOST_PROGRAM "'; " + commandLine;
    Ran ran{-1, ""};
    FILE* pipe = popen(line.c_str(), "re");
    if (pipe == nullptr) return ran;
    std::array<char, 500> text{};
    while (const std::size_t count = fread(text.data(), 1, text.size(), pipe)) {
        ran.output.append(text.data(), count);
    }
    const int status = pclose(pipe);
    ran.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return ran;
}

Tool::Tool() {
    std::string pattern = testing::TempDir() + "vexa-host-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) folder = pattern;
}

Tool::~Tool() { std::filesystem::remove_all(folder); }

Ran Tool::RunOnUnit(const std::string& commandLine) const {
    return RunShell("export VEXA_UNIT_DIR=" + folder + "; " + commandLine);
}
