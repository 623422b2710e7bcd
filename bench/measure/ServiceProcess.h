// The service as a process of its own, over the sensors, sessions and node of this folder.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "testkit/ChildProcess.h"
#include "vexahost/Client.h"

namespace vexa::measure {

// CPU time used so far.
struct CpuTime {
    std::chrono::nanoseconds service{};   // all threads but the source's
    std::chrono::nanoseconds mainLoop{};  // the service's main thread alone
    std::chrono::nanoseconds source{};
};

class ServiceProcess {
  public:
    // Starts `program`, with one argument or none, and with the libraries in `libraries`. Ends the
    // measuring program with a line of error when it cannot.
    ServiceProcess(const std::string& program, const std::string& libraries,
                   const std::string& argument = "");
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    // The host at the other end of its link, made with the first call.
    [[nodiscard]] vexahost::Client& Host();

    // The link itself, for a program that is not the service.
    [[nodiscard]] int Link() const { return link.Get(); }

    [[nodiscard]] CpuTime Cpu() const;

    // Resident memory in KiB.
    [[nodiscard]] std::uint64_t ResidentKiB() const;

    // From its start to now.
    [[nodiscard]] std::chrono::nanoseconds Age() const {
        return std::chrono::steady_clock::now() - started;
    }

  private:
    std::chrono::steady_clock::time_point started;
    testkit::Descriptor link;
    std::optional<testkit::ChildProcess> process;
    std::unique_ptr<vexahost::Client> host;
};

// Prints `text` as an error and ends the measuring program.
[[noreturn]] void Fail(const std::string& text);

}  // namespace vexa::measure
