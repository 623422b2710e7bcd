#include "check/Report.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace vexa::unit {

namespace {

constexpr std::size_t kCallSize = 64;
constexpr unsigned kPatienceSeconds = 30;
constexpr int kFound = 10;  // exit status of a part that has found something

char* SharedText() {
    void* const memory =
        ::mmap(nullptr, kCallSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    return static_cast<char*>(memory);
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
    const pid_t child = ::fork();
    if (child == 0) {
        good = true;
        ::alarm(kPatienceSeconds);
        part();
        std::_Exit(good ? EXIT_SUCCESS : kFound);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child) {
        Odd(subject + ": cannot be checked: " + std::strerror(errno));
        return;
    }
    PrintEnd(subject, status);
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
        Odd(subject + ": has not returned after " + std::to_string(kPatienceSeconds) + " s " +
            where);
    } else {
        Odd(subject + ": crashed (" + ::strsignal(WTERMSIG(status)) + ") " + where);
    }
}

void Report::Print(const char* verdict, const std::string& text) const {
    std::printf("%-7s  %s\n", verdict, text.c_str());
    std::fflush(stdout);
}

}  // namespace vexa::unit
