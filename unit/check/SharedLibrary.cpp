#include "check/SharedLibrary.h"

#include <dlfcn.h>
#include <link.h>

namespace vexa::unit {

namespace {

std::string FileOf(void* handle) {
    link_map* map = nullptr;
    return ::dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 ? map->l_name : "";
}

}  // namespace

void SharedLibrary::Closer::operator()(void* library) const { ::dlclose(library); }

SharedLibrary::SharedLibrary(const std::string& name_, const std::string& path, Report& report_)
    : report(report_), name(name_) {
    // A name without a slash would be looked for, and not in the current folder.
    const bool isPlain = path.find('/') == std::string::npos;
    const std::string file = path.empty() ? name : isPlain ? "./" + path : path;
    handle.reset(::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL));
    if (handle) {
        report.Ok(name + ": " + FileOf(handle.get()));
    } else {
        const std::string why = ::dlerror();
        report.Missing(why.starts_with(name) ? why : name + ": " + why);
    }
}

void* SharedLibrary::Symbol(const char* symbol) {
    if (!handle) return nullptr;
    void* const address = ::dlsym(handle.get(), symbol);
    if (address == nullptr) {
        report.Missing(name + ": the function " + symbol);
        ++missing;
    } else {
        ++found;
    }
    return address;
}

bool SharedLibrary::IsComplete(const std::string& header) {
    if (!handle) return false;
    if (missing == 0) {
        report.Ok(name + ": all " + std::to_string(found) + " functions of " + header);
        return true;
    }
    report.Missing(name + ": " + std::to_string(missing) + " of " +
                   std::to_string(found + missing) + " functions of " + header +
                   "; the others were not called");
    return false;
}

}  // namespace vexa::unit
