#include "host/ToolFixture.h"

#include <cstdlib>
#include <filesystem>

namespace vexahost::tool {

Ran RunShell(const std::string& commandLine) {
    return vexa::testkit::RunShell("HOST='" VEXA_HOST_PROGRAM "'; " + commandLine);
}

Tool::Tool() {
    std::string pattern = testing::TempDir() + "vexa-host-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) folder = pattern;
}

Tool::~Tool() { std::filesystem::remove_all(folder); }

Ran Tool::RunOnUnit(const std::string& commandLine) const {
    return RunShell("export VEXA_UNIT_DIR=" + folder + "; " + commandLine);
}

}  // namespace vexahost::tool
