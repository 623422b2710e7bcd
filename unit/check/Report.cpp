#include "check/Report.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "testkit/ChildProcess.h"

namespace vexa::unit {

namespace {

constexpr std::size_t kCallSize = 64;
constexpr unsigned kPartTimeoutSeconds = 30;
constexpr int kFound = 10;  // exit status of a part with findings

char* SharedText() {
    void* const memory =
        ::mmap(nullptr, kCallSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    return static_cast<char*>(memory);
}

std::string FileOf(void* handle) {
    link_map* map = nullptr;
    return ::dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 ? map->l_name : "";
}

}  // namespace

Report::Report() : call(SharedText()) {}

Report::~Report() { ::munmap(call, kCallSize); }

void Report::Ok(const std::string& text) { Print("ok", text); }

void Report::Missing(const std::string& text) {
    good = false;
    Print("missing", text);
}

void Report::Odd(const std::string& text) {
    good = false;
    Print("odd", text);
}

void Report::Calling(const char* name) { std::strncpy(call, name, kCallSize - 1); }

void Report::Apart(const std::string& subject, const std::function<void()>& part) {
    Calling("");
    std::fflush(nullptr);
    const auto status = testkit::RunApart([&] {
        good = true;
        ::alarm(kPartTimeoutSeconds);
        part();
        return good ? EXIT_SUCCESS : kFound;
    });
    if (status) {
        PrintEnd(subject, *status);
    } else {
        Odd(subject + ": cannot be checked: " + std::strerror(errno));
    }
}

void Report::PrintEnd(const std::string& subject, int status) {
    if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) return;
    if (WIFEXITED(status) && WEXITSTATUS(status) == kFound) {
        good = false;
        return;
    }
    const std::string where = *call == '\0' ? "while it was loaded" : "in " + std::string(call);
    if (WIFEXITED(status)) {
        Odd(subject + ": ended the process with exit status " +
            std::to_string(WEXITSTATUS(status)) + " " + where);
    } else if (WTERMSIG(status) == SIGALRM) {
        Odd(subject + ": has not returned after " + std::to_string(kPartTimeoutSeconds) + " s " +
            where);
    } else {
        Odd(subject + ": crashed (" + ::strsignal(WTERMSIG(status)) + ") " + where);
    }
}

void Report::Print(const char* verdict, const std::string& text) const {
    std::printf("%-7s  %s\n", verdict, text.c_str());
    std::fflush(stdout);
}

void SharedLibrary::Closer::operator()(void* library) const { ::dlclose(library); }

SharedLibrary::SharedLibrary(const std::string& name_, const std::string& path, Report& report_)
    : report(report_), name(name_) {
    // The linker would search for a name without a slash, but not in the current folder.
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
