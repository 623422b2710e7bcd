// vexa-host as a program, with a folder of its own for the unit's socket.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "testkit/ChildProcess.h"

namespace vexahost::tool {

using Ran = vexa::testkit::Finished;  // exit status and both outputs

// Runs a shell command line in which $HOST is vexa-host.
Ran RunShell(const std::string& commandLine);

class Tool : public testing::Test {
  protected:
    Tool();
    ~Tool() override;

    [[nodiscard]] std::string Socket() const { return folder + "/host.sock"; }

    // The same, with `folder` as the unit's directory.
    [[nodiscard]] Ran RunOnUnit(const std::string& commandLine) const;

    std::string folder;
};

}  // namespace vexahost::tool
