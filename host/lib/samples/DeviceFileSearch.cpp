#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "vexahost/DeviceFile.h"

namespace vexahost {

namespace {

// Empty when there is no such folder.
std::string ConfigFolder() {
    const char* const config = std::getenv("XDG_CONFIG_HOME");
    if (config != nullptr && *config == '/') return config;
    const char* const home = std::getenv("HOME");
    return home != nullptr && *home != '\0' ? std::string(home) + "/.config" : "";
}

}  // namespace

Expected<DeviceFormats> ReadDeviceFile(const std::string& path) {
    std::ifstream file(path);
    std::string text(std::istreambuf_iterator<char>(file), {});
    // A directory can be opened, but not read.
    if (!file.is_open() || file.bad()) {
        return Error{ErrorKind::kInvalidArgument,
                     "cannot read " + path + ": " + std::strerror(errno)};
    }
    return ParseDeviceFile(text, path);
}

Expected<DeviceFormats> LoadDeviceFormats(const std::string& path) {
    std::string used = path;
    if (used.empty()) {
        const std::string folder = ConfigFolder();
        struct stat status {};
        const std::string usual = folder + "/vexa/devices.json";
        if (!folder.empty() && stat(usual.c_str(), &status) == 0) used = usual;
    }
    if (used.empty()) return DeviceFormats::BuiltIn();
    auto formats = ReadDeviceFile(used);
    if (formats) formats->AddMissing(DeviceFormats::BuiltIn());
    return formats;
}

}  // namespace vexahost
