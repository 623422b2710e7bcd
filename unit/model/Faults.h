// The calls that the unit stands in for, and the faults that can be set on them.
#pragma once

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Mutex.h"
#include "model/Random.h"
#include "model/Runtime.h"

namespace vexa::unit {

// What a fault does to a call. The values are bits, so that sets of actions can be formed.
enum class FaultAction : unsigned {
    kFail = 1,       // nothing is done and the call fails
    kBlock = 2,      // the caller waits before the call does its work
    kLate = 4,       // the work is done at once, the result is returned late
    kShort = 8,      // fewer bytes are read or written than requested
    kOversize = 16,  // a device's block gets a given size
    kCorrupt = 32,   // one byte of a device's block is inverted
    kData = 64,      // the device sends a block while its stream is being closed
};

[[nodiscard]] constexpr unsigned Bits(FaultAction action) { return static_cast<unsigned>(action); }

inline constexpr unsigned kTimedActions = Bits(FaultAction::kBlock) | Bits(FaultAction::kLate);
inline constexpr unsigned kCallActions = kTimedActions | Bits(FaultAction::kFail);

// In the order of kCalls.
enum class Call : std::size_t {
    kInit,
    kUninit,
    kGetDllVersion,
    kSetDebugTraceThreshold,
    kGetDeviceType,
    kSearchForDevices,
    kOpenSnapshot,
    kGetNthEntry,
    kCloseSnapshot,
    kStreamOpen,
    kStreamWrite,
    kStreamClose,
    kGetOpenDeviceName,
    kDeviceOpen,
    kDeviceClose,
    kCriInit,
    kCriCommand,
    kCriTerminate,
    kNodeOpen,
    kNodeRead,
    kNodeWrite,
    kNodeIoctl,
    kData,  // not a call: a block that a device sends
};

struct CallInfo {
    std::string_view name;
    bool named = false;               // concerns one device or application
    unsigned actions = kCallActions;  // the actions that a fault on it may have
};

inline constexpr std::size_t kCallCount = 23;

inline constexpr std::array<CallInfo, kCallCount> kCalls = {{
    {"VEXA_Init"},
    {"VEXA_Uninit"},
    {"VEXA_GetDLLVersion"},
    {"VEXA_Diags_SetDebugTraceThreshold"},
    {"VEXA_GetDeviceTypeFromDeviceName", true},
    {"VEXA_SearchForDevices"},
    {"VEXA_OpenDeviceListSnapshot"},
    {"VEXA_DeviceListSnapshot_GetNthEntry", true},
    {"VEXA_CloseDeviceListSnapshot"},
    {"VEXA_Device_Stream_Open", true},
    {"VEXA_Device_Stream_Write", true},
    {"VEXA_Device_Stream_Close", true, kCallActions | Bits(FaultAction::kData)},
    {"VEXA_Device_GetOpenDeviceName", true},
    {"VEXA_Device_Open", true},
    {"VEXA_Device_Close", true},
    {"criInit", true},
    {"criCommand", true},
    {"criTerminate", true},
    {"node.open"},
    {"node.read", false, kCallActions | Bits(FaultAction::kShort)},
    {"node.write", false, kCallActions | Bits(FaultAction::kShort)},
    {"node.ioctl"},
    {"data", true, Bits(FaultAction::kOversize) | Bits(FaultAction::kCorrupt)},
}};

[[nodiscard]] constexpr const CallInfo& InfoOf(Call call) {
    return kCalls[static_cast<std::size_t>(call)];
}

[[nodiscard]] constexpr bool IsNodeCall(Call call) {
    return call >= Call::kNodeOpen && call <= Call::kNodeIoctl;
}

[[nodiscard]] constexpr bool IsApplicationCall(Call call) {
    return call >= Call::kCriInit && call <= Call::kCriTerminate;
}

// A fault, as a scenario or a user sets it.
struct Fault {
    Call call = Call::kInit;
    FaultAction action = FaultAction::kFail;
    std::string target = {};                   // device or application; empty: all
    bool later = false;                        // the target may be attached later
    std::uint32_t skip = 0;                    // calls that it leaves alone first
    std::optional<std::uint32_t> count = {};   // calls that it hits then; nothing: all
    std::uint32_t chance = 100;                // percent of those calls that it hits, at random
    std::uint32_t ms = 0;                      // for kBlock and kLate
    std::uint32_t bytes = 0;                   // for kShort and kOversize
    std::optional<std::uint32_t> offset = {};  // for kCorrupt; nothing: the middle of the block
    int error = EIO;                           // errno, for kFail on the node

    bool operator==(const Fault&) const = default;
};

// The combined effect of all faults that hit one call. The oldest one decides where they disagree.
struct FaultEffect {
    std::vector<std::uint32_t> faults;  // numbers of the faults that hit; empty: none
    std::uint32_t blockMs = 0;
    std::uint32_t lateMs = 0;
    std::optional<int> error;                // the call fails, on the node with this errno
    std::optional<std::uint32_t> atMost;     // bytes to read or write
    std::optional<std::uint32_t> blockSize;  // bytes in a device's block
    bool corrupts = false;
    std::optional<std::uint32_t> corruptOffset;
    bool sendsData = false;

    [[nodiscard]] bool IsNone() const { return faults.empty(); }
};

// A fault that has been set.
struct FaultRecord {
    std::uint32_t id = 0;
    Fault fault;
    std::uint64_t uses = 0;  // matching calls, including those that it skipped
    std::uint64_t hits = 0;
    Random random;
};

using CallCounts = std::array<std::uint64_t, kCallCount>;

// Counts every call and decides which faults hit it. Any thread.
class VEXA_UNIT_EXPORT FaultTable {
  public:
    // `seed` is for the faults that hit at random.
    explicit FaultTable(std::span<const Fault> faults = {}, std::uint32_t seed = kDefaultSeed);

    // Counts a call, on the device or application `target` if it concerns one.
    [[nodiscard]] FaultEffect Use(Call call, std::string_view target = "");

    // Returns the number of the new fault, from 1; numbers are never reused.
    std::uint32_t Set(const Fault& fault);
    // These return how many faults were cleared.
    std::size_t Clear(std::uint32_t id);
    std::size_t Clear(Call call);
    std::size_t ClearAll();

    // All faults that are set, including used-up ones, oldest first.
    [[nodiscard]] std::vector<FaultRecord> Faults() const;
    [[nodiscard]] CallCounts Uses() const;

  private:
    const std::uint32_t seed;
    mutable Mutex mutex;
    std::vector<FaultRecord> records VEXA_GUARDED_BY(mutex);
    std::uint32_t lastId VEXA_GUARDED_BY(mutex) = 0;
    CallCounts counts VEXA_GUARDED_BY(mutex){};
};

}  // namespace vexa::unit
