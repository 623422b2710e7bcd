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

ServiceProcess::ServiceProcess(const std::string& program, const std::string& libraries,
                               const std::string& argument) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        Fail("no socket pair");
    }
    link = testkit::Descriptor(ends[0]);
    const testkit::Descriptor unitEnd(ends[1]);
    testkit::ProcessCall call;
    call.command = {program};
    if (!argument.empty()) call.command.push_back(argument);
    call.environment = {{"LD_LIBRARY_PATH", libraries},
                        {"LD_PRELOAD", libraries + "/libmeasured-node.so"},
                        {"MEASURED_LINK", std::to_string(unitEnd.Get())}};
    call.inherited = {unitEnd.Get()};
    call.output = testkit::ProcessCall::Output::kDiscarded;
    started = std::chrono::steady_clock::now();
    process.emplace(call);
}

ServiceProcess::~ServiceProcess() { process->Stop(std::chrono::seconds(5)); }

vexahost::Client& ServiceProcess::Host() {
    if (!host) {
        host = std::make_unique<vexahost::Client>(std::make_unique<vexahost::SocketTransport>(
            link.Release(), vexahost::Framing::kFrameHeaders));
    }
    return *host;
}

CpuTime ServiceProcess::Cpu() const {
    CpuTime used;
    for (const auto& thread :
         fs::directory_iterator("/proc/" + std::to_string(process->Id()) + "/task")) {
        std::string name;
        std::getline(std::ifstream(thread.path() / "comm"), name);
        std::int64_t nanoseconds = 0;
        std::ifstream(thread.path() / "schedstat") >> nanoseconds;
        const std::chrono::nanoseconds time(nanoseconds);
        (name == kSourceThread ? used.source : used.service) += time;
        if (thread.path().filename() == std::to_string(process->Id())) used.mainLoop = time;
    }
    return used;
}

std::uint64_t ServiceProcess::ResidentKiB() const {
    std::ifstream status("/proc/" + std::to_string(process->Id()) + "/status");
    for (std::string key; status >> key;) {
        std::uint64_t value = 0;
        if (key == "VmRSS:" && status >> value) return value;
    }
    Fail("no resident size of the service");
}

}  // namespace vexa::measure
