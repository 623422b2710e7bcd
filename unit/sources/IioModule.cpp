#include "sources/IioModule.h"

#include <dlfcn.h>

#include <array>

namespace vexa::unit {

namespace {

constexpr char kModule[] = "libvexa-unit-iio.so";

// The module, which stays loaded. Without a folder the dynamic linker looks beside this library.
void* Load(const std::string& folder) {
    void* const module =
        ::dlopen((folder.empty() ? kModule : folder + "/" + kModule).c_str(), RTLD_NOW);
    if (module == nullptr) {
        throw SourceError(std::string("IIO devices need libiio (package vexa-board): ") +
                          ::dlerror());
    }
    return module;
}

template <typename Function>
Function* FunctionOf(void* module, const char* name) {
    auto* const function = reinterpret_cast<Function*>(::dlsym(module, name));
    if (function == nullptr) throw SourceError(std::string(kModule) + " has no " + name);
    return function;
}

}  // namespace

std::unique_ptr<Source> MakeIioSource(const SourceSettings& settings) {
    if (const auto missing = WhatIsMissing(settings)) throw SourceError(*missing);
    auto* const make = FunctionOf<Source*(const SourceSettings&)>(Load(""), "VexaMakeIioSource");
    return std::unique_ptr<Source>(make(settings));
}

std::vector<IioDevice> ListIioDevices(const std::string& folder) {
    std::vector<IioDevice> devices;
    FunctionOf<void(std::vector<IioDevice>&)>(Load(folder), "VexaListIioDevices")(devices);
    return devices;
}

}  // namespace vexa::unit
