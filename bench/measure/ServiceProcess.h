// The service as a process of its own, over the sensors, sessions and node of this folder.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "vexahost/Client.h"

namespace vexa::measure {

// CPU time used so far.
struct CpuTime {
    std::chrono::nanoseconds service{};  // all threads but the source's
    std::chrono::nanoseconds source{};
};

class ServiceProcess {
  public:
    // Starts `program` with the libraries that lie in `libraries`. Ends the measuring program with
    // a line of error when it cannot.
    ServiceProcess(const std::string& program, const std::string& libraries);
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    // The host at the other end of its link.
    [[nodiscard]] vexahost::Client& Host() { return *host; }

    [[nodiscard]] CpuTime Cpu() const;

    // Resident memory in KiB.
    [[nodiscard]] std::uint64_t ResidentKiB() const;

    // From its start to now.
    [[nodiscard]] std::chrono::nanoseconds Age() const {
        return std::chrono::steady_clock::now() - started;
    }

  private:
    std::chrono::steady_clock::time_point started;
    pid_t process = -1;
    std::unique_ptr<vexahost::Client> host;
};

// Prints `text` as an error and ends the measuring program.
[[noreturn]] void Fail(const std::string& text);

}  // namespace vexa::measure
