// The outcome of a script's commands, for the programs that collect test results.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "vexahost/Expected.h"

namespace vexahost::tool {

// A JUnit file when its name ends with ".xml", else TAP (Test Anything Protocol, version 13). One
// thread at a time.
class ScriptReport {
  public:
    // Without a file: nothing is written.
    ScriptReport() = default;

    // Creates the file. kInvalidArgument when that fails.
    static Expected<ScriptReport> Create(const std::string& path);

    // Adds a test: a command at "NAME:LINE". An empty `failure`: it ended as expected.
    void Add(std::string place, std::string command, std::string failure,
             std::chrono::steady_clock::duration time);

    // Adds a command that was not reached.
    void AddSkipped(std::string place, std::string command);

    // Writes the file. kInvalidArgument when it cannot be written.
    Expected<Done> Finish(const std::string& script);

  private:
    struct Test {
        std::string place;
        std::string command;
        std::string failure;
        double seconds;
        bool isSkipped;
    };
    struct Closer {
        void operator()(std::FILE* open) const { std::fclose(open); }
    };

    [[nodiscard]] std::string Tap() const;
    [[nodiscard]] std::string JUnit(const std::string& script) const;

    std::string path;
    std::unique_ptr<std::FILE, Closer> file;
    std::vector<Test> tests;
};

}  // namespace vexahost::tool
