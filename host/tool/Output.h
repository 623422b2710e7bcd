// Standard output for a verb that must not wait for its reader.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace vexahost::tool {

// Text that is written as fast as its reader accepts it. Standard output must not be used in any
// other way meanwhile. One thread at a time.
class PatientOutput {
  public:
    void Add(std::string_view text) { pending += text; }

    // Writes what is pending until `deadline` or an interrupt. False when standard output takes
    // nothing any more: its reader has left, or a write has failed.
    bool Write(std::chrono::steady_clock::time_point deadline);

    // Writes what is pending if its reader accepts it within a second, interrupted or not. Returns
    // the number of bytes that are left.
    std::size_t Finish();

    // False once standard output takes nothing any more.
    [[nodiscard]] bool IsOpen() const { return isOpen; }

    // Why a write has failed; empty when none has.
    [[nodiscard]] const std::string& Fault() const { return fault; }

  private:
    bool WriteSome(std::chrono::milliseconds wait);

    std::string pending;
    bool isOpen = true;
    std::string fault;
};

}  // namespace vexahost::tool
