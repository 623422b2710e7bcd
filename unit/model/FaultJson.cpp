#include "model/FaultJson.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "model/Scenario.h"

namespace vexa::unit {

namespace {

constexpr std::uint32_t kMaxUnsigned = std::numeric_limits<std::uint32_t>::max();

constexpr std::array<std::pair<std::string_view, FaultAction>, 7> kActions = {
    {{"fail", FaultAction::kFail},
     {"block", FaultAction::kBlock},
     {"late", FaultAction::kLate},
     {"short", FaultAction::kShort},
     {"oversize", FaultAction::kOversize},
     {"corrupt", FaultAction::kCorrupt},
     {"data", FaultAction::kData}}};

constexpr std::array<std::pair<std::string_view, int>, 20> kErrors = {
    {{"EACCES", EACCES}, {"EAGAIN", EAGAIN}, {"EBADF", EBADF},         {"EBUSY", EBUSY},
     {"EFAULT", EFAULT}, {"EINTR", EINTR},   {"EINVAL", EINVAL},       {"EIO", EIO},
     {"EMFILE", EMFILE}, {"ENODEV", ENODEV}, {"ENOENT", ENOENT},       {"ENOMEM", ENOMEM},
     {"ENOSPC", ENOSPC}, {"ENOTTY", ENOTTY}, {"ENXIO", ENXIO},         {"EPERM", EPERM},
     {"EPIPE", EPIPE},   {"EPROTO", EPROTO}, {"ESHUTDOWN", ESHUTDOWN}, {"ETIMEDOUT", ETIMEDOUT}}};

FaultAction ReadAction(const CheckedJson& node, Call call) {
    std::vector<std::pair<std::string_view, FaultAction>> possible;
    for (const auto& choice : kActions) {
        if ((InfoOf(call).actions & Bits(choice.second)) != 0) possible.push_back(choice);
    }
    (void)node.Required("action");
    FaultAction action{};
    node.ReadChoice<FaultAction>("action", possible, action);
    return action;
}

// A key that says something only in some cases: complains when it is there in others, and, if it is
// `needed` in these, when it is missing.
bool IsGiven(const CheckedJson& node, std::string_view key, bool applies, bool needed,
             std::string_view when) {
    if (!applies && node.Has(key)) {
        node.ComplainAbout(key, "is of no use here: it goes with " + std::string(when));
    }
    if (applies && needed) (void)node.Required(key);
    return applies;
}

}  // namespace

Call ReadCall(const CheckedJson& node, std::string_view key) {
    const auto call = node.Required(key).Text("the name of a call");
    const auto found = std::ranges::find(kCalls, call, &CallInfo::name);
    if (found == kCalls.end()) {
        node.Required(key).Complain("the name of a call, such as \"VEXA_Init\" or \"node.read\"");
    }
    return static_cast<Call>(found - kCalls.begin());
}

Fault ReadFault(const CheckedJson& node) {
    node.RequireKeys({"call", "action", "for", "skip", "count", "ms", "bytes", "offset", "errno"});
    Fault fault;
    fault.call = ReadCall(node, "call");
    fault.action = ReadAction(node, fault.call);
    const auto is = [&](FaultAction action) { return fault.action == action; };

    if (IsGiven(node, "for", InfoOf(fault.call).named, false,
                "calls that concern one device or application")) {
        node.ReadName("for", false, fault.target);
    }
    node.ReadUnsigned("skip", 0, kMaxUnsigned, fault.skip);
    if (std::uint32_t count = 0; node.Has("count")) {
        node.ReadUnsigned("count", 1, kMaxUnsigned, count);
        fault.count = count;
    }
    if (IsGiven(node, "ms", (Bits(fault.action) & kTimedActions) != 0, true, "block and late")) {
        node.ReadUnsigned("ms", 1, kMaxDelayMs, fault.ms);
    }
    if (IsGiven(node, "bytes", is(FaultAction::kShort) || is(FaultAction::kOversize), true,
                "short and oversize")) {
        const std::uint32_t least = is(FaultAction::kShort) ? 0 : 1;
        node.ReadUnsigned("bytes", least, kMaxBlockSize, fault.bytes);
    }
    if (IsGiven(node, "offset", is(FaultAction::kCorrupt), false, "corrupt") &&
        node.Has("offset")) {
        node.ReadUnsigned("offset", 0, kMaxBlockSize, fault.offset.emplace());
    }
    if (IsGiven(node, "errno", is(FaultAction::kFail) && IsNodeCall(fault.call), false,
                "fail of the calls node.*")) {
        node.ReadChoice<int>("errno", kErrors, fault.error);
    }
    return fault;
}

nlohmann::ordered_json FaultToJson(const Fault& fault) {
    nlohmann::ordered_json json;
    json["call"] = InfoOf(fault.call).name;
    json["action"] = NameIn(kActions, fault.action);
    if (!fault.target.empty()) json["for"] = fault.target;
    if (fault.skip != 0) json["skip"] = fault.skip;
    if (fault.count) json["count"] = *fault.count;
    if (fault.ms != 0) json["ms"] = fault.ms;
    if (fault.action == FaultAction::kShort || fault.action == FaultAction::kOversize) {
        json["bytes"] = fault.bytes;
    }
    if (fault.offset) json["offset"] = *fault.offset;
    if (fault.action == FaultAction::kFail && IsNodeCall(fault.call)) {
        json["errno"] = NameIn(kErrors, fault.error);
    }
    return json;
}

}  // namespace vexa::unit
