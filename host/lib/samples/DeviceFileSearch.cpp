#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

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
    const auto failed = [&path] {
        return Error{ErrorKind::kInvalidArgument,
                     "cannot read " + path + ": " + std::strerror(errno)};
    };
    const auto close = [](std::FILE* open) { std::fclose(open); };
    const std::unique_ptr<std::FILE, decltype(close)> file(std::fopen(path.c_str(), "re"), close);
    if (!file) return failed();
    std::string text;
    std::array<char, 4096> piece;
    while (const std::size_t got = std::fread(piece.data(), 1, piece.size(), file.get())) {
        text.append(piece.data(), got);
    }
    if (std::ferror(file.get()) != 0) return failed();  // a directory can be opened, but not read
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
