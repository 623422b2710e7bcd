#include "run/StandIns.h"

#include <array>
#include <cstdlib>
#include <filesystem>

#include "run/UserError.h"

namespace vexa::unit {

namespace {

constexpr char kNodeLibrary[] = "libzt-usb.so";

// `first`, followed by what the variable holds already.
std::string Before(const std::string& first, const char* variable, char separator) {
    const char* const rest = std::getenv(variable);
    return rest == nullptr || *rest == '\0' ? first : first + separator + rest;
}

}  // namespace

std::string ProgramFolder() {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
}

std::string StandInFolder() {
    const auto above = std::filesystem::path(ProgramFolder()).parent_path();
    const std::array candidates = {above / "lib", above / VEXA_STAND_IN_FOLDER};
    for (const auto& candidate : candidates) {
        std::error_code error;
        if (std::filesystem::exists(candidate / kNodeLibrary, error)) return candidate;
    }
    throw UserError("cannot find " + std::string(kNodeLibrary) + " in " + candidates[0].string() +
                    " or " + candidates[1].string());
}

void PreferStandIns(const std::string& folder, EnvironmentChanges& changes) {
    changes["LD_LIBRARY_PATH"] = Before(folder, "LD_LIBRARY_PATH", ':');
    changes["LD_PRELOAD"] = Before(folder + "/" + kNodeLibrary, "LD_PRELOAD", ':');
}

}  // namespace vexa::unit
