// A fault that the unit is told to have.
#pragma once

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>

#include "model/Call.h"

namespace vexa::unit {

struct Fault {
    Call call = Call::kInit;
    FaultAction action = FaultAction::kFail;
    std::string target = {};                   // device or application it is limited to; empty: all
    std::uint32_t skip = 0;                    // uses that it leaves alone first
    std::optional<std::uint32_t> count = {};   // uses that it hits then; nothing: all
    std::uint32_t ms = 0;                      // of kBlock and kLate
    std::uint32_t bytes = 0;                   // of kShort and kOversize
    std::optional<std::uint32_t> offset = {};  // of kCorrupt; nothing: the middle of the block
    int error = EIO;                           // errno of kFail, on the node

    bool operator==(const Fault&) const = default;
};

}  // namespace vexa::unit
