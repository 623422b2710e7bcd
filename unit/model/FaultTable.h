// Counts the uses of each call, and says which faults hit a use.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "model/Export.h"
#include "model/Fault.h"

namespace vexa::unit {

// What all faults that hit one use do together. The first one decides where they disagree.
struct FaultEffect {
    std::vector<std::uint32_t> faults;  // numbers of those that hit; empty: a good use
    std::uint32_t blockMs = 0;
    std::uint32_t lateMs = 0;
    std::optional<int> error;                // fails, on the node with this errno
    std::optional<std::uint32_t> atMost;     // bytes to read or write
    std::optional<std::uint32_t> blockSize;  // of a device's block, in bytes
    bool corrupts = false;
    std::optional<std::uint32_t> corruptOffset;
    bool sendsData = false;

    [[nodiscard]] bool IsNone() const { return faults.empty(); }
};

// A fault that has been set.
struct FaultRecord {
    std::uint32_t id = 0;
    Fault fault;
    std::uint64_t uses = 0;  // that it could have hit, those it skipped included
    std::uint64_t hits = 0;
};

using CallCounts = std::array<std::uint64_t, kCallCount>;

// All calls from any thread; none blocks.
class VEXA_UNIT_EXPORT FaultTable {
  public:
    explicit FaultTable(std::span<const Fault> faults = {});

    // The call is used, for the device or application `target` if it concerns one.
    [[nodiscard]] FaultEffect Use(Call call, std::string_view target = "");

    // Number of the new fault, from 1; never given twice.
    std::uint32_t Set(const Fault& fault);
    // How many faults were cleared.
    std::size_t Clear(std::uint32_t id);
    std::size_t Clear(Call call);
    std::size_t ClearAll();

    // Those that are set, used up or not, in the order in which they were.
    [[nodiscard]] std::vector<FaultRecord> Faults() const;
    [[nodiscard]] CallCounts Uses() const;

  private:
    mutable std::mutex mutex;  // guards all below
    std::vector<FaultRecord> records;
    std::uint32_t lastId = 0;
    CallCounts counts{};
};

}  // namespace vexa::unit
