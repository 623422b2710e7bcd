#include "ServiceProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Sensors.h"
#include "vexahost/SocketTransport.h"

namespace vexa::measure {

namespace fs = std::filesystem;

void Fail(const std::string& text) {
    std::fprintf(stderr, "vexa-measure: %s\n", text.c_str());
    std::exit(1);
}

ServiceProcess::ServiceProcess(const std::string& program, const std::string& libraries) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) Fail("no socket pair");
    ::fcntl(ends[0], F_SETFD, FD_CLOEXEC);
    started = std::chrono::steady_clock::now();
    process = ::fork();
    if (process == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // also when the measuring is interrupted
        ::setenv("LD_LIBRARY_PATH", libraries.c_str(), 1);
        ::setenv("LD_PRELOAD", (libraries + "/libmeasured-node.so").c_str(), 1);
        ::setenv("MEASURED_LINK", std::to_string(ends[1]).c_str(), 1);
        const int silence = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(silence, STDOUT_FILENO);
        ::execl(program.c_str(), program.c_str(), nullptr);
        std::perror(program.c_str());
        std::_Exit(EXIT_FAILURE);
    }
    ::close(ends[1]);
    host = std::make_unique<vexahost::Client>(
        std::make_unique<vexahost::SocketTransport>(ends[0], vexahost::Framing::kFrameHeaders));
}

ServiceProcess::~ServiceProcess() {
    ::kill(process, SIGTERM);
    ::waitpid(process, nullptr, 0);
}

CpuTime ServiceProcess::Cpu() const {
    CpuTime used;
    for (const auto& thread :
         fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        std::string name;
        std::getline(std::ifstream(thread.path() / "comm"), name);
        std::int64_t nanoseconds = 0;
        std::ifstream(thread.path() / "schedstat") >> nanoseconds;
        (name == kSourceThread ? used.source : used.service) +=
            std::chrono::nanoseconds(nanoseconds);
    }
    return used;
}

std::uint64_t ServiceProcess::ResidentKiB() const {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string key; status >> key;) {
        std::uint64_t value = 0;
        if (key == "VmRSS:" && status >> value) return value;
    }
    Fail("no resident size of the service");
}

}  // namespace vexa::measure
