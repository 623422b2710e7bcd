// The calls that the unit stands in for, and what can go wrong with each.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace vexa::unit {

// What a fault does to a use of a call; a set of them is their sum.
enum class FaultAction : unsigned {
    kFail = 1,       // nothing is done, and the call fails
    kBlock = 2,      // the caller waits, then the call does its work
    kLate = 4,       // the work is done at once, and the result given late
    kShort = 8,      // fewer bytes are read or written than asked for
    kOversize = 16,  // a device's block grows to a given size
    kCorrupt = 32,   // a byte of a device's block is inverted
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
    unsigned actions = kCallActions;  // that a fault may take
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

}  // namespace vexa::unit
