#include "model/Faults.h"

namespace vexa::unit {

namespace {

// Counts the call if it matches the fault; returns whether the fault hits it.
bool CountHit(FaultRecord& record, Call call, std::string_view target) {
    const Fault& fault = record.fault;
    if (fault.call != call || (!fault.target.empty() && fault.target != target)) return false;
    if (++record.uses <= fault.skip) return false;
    if (fault.count && record.hits >= *fault.count) return false;
    if (fault.chance < 100 && record.random.Below(100) >= fault.chance) return false;
    ++record.hits;
    return true;
}

template <typename Value>
void SetFirst(std::optional<Value>& into, Value value) {
    if (!into) into = value;
}

void AddTo(FaultEffect& effect, const FaultRecord& record) {
    const Fault& fault = record.fault;
    effect.faults.push_back(record.id);
    switch (fault.action) {
        case FaultAction::kFail:
            SetFirst(effect.error, fault.error);
            break;
        case FaultAction::kBlock:
            effect.blockMs += fault.ms;
            break;
        case FaultAction::kLate:
            effect.lateMs += fault.ms;
            break;
        case FaultAction::kShort:
            SetFirst(effect.atMost, fault.bytes);
            break;
        case FaultAction::kOversize:
            SetFirst(effect.blockSize, fault.bytes);
            break;
        case FaultAction::kCorrupt:
            if (!effect.corrupts) effect.corruptOffset = fault.offset;
            effect.corrupts = true;
            break;
        case FaultAction::kData:
            effect.sendsData = true;
            break;
    }
}

}  // namespace

FaultTable::FaultTable(std::span<const Fault> faults, std::uint32_t seed_) : seed(seed_) {
    for (const auto& fault : faults) Set(fault);
}

FaultEffect FaultTable::Use(Call call, std::string_view target) {
    FaultEffect effect;
    const MutexLock lock(mutex);
    ++counts[static_cast<std::size_t>(call)];
    for (auto& record : records) {
        if (CountHit(record, call, target)) AddTo(effect, record);
    }
    return effect;
}

std::uint32_t FaultTable::Set(const Fault& fault) {
    const MutexLock lock(mutex);
    ++lastId;
    records.push_back(
        {.id = lastId, .fault = fault, .random = Random(seed, "fault " + std::to_string(lastId))});
    return lastId;
}

std::size_t FaultTable::Clear(std::uint32_t id) {
    const MutexLock lock(mutex);
    return std::erase_if(records, [id](const FaultRecord& record) { return record.id == id; });
}

std::size_t FaultTable::Clear(Call call) {
    const MutexLock lock(mutex);
    return std::erase_if(records,
                         [call](const FaultRecord& record) { return record.fault.call == call; });
}

std::size_t FaultTable::ClearAll() {
    const MutexLock lock(mutex);
    const std::size_t count = records.size();
    records.clear();
    return count;
}

std::vector<FaultRecord> FaultTable::Faults() const {
    const MutexLock lock(mutex);
    return records;
}

CallCounts FaultTable::Uses() const {
    const MutexLock lock(mutex);
    return counts;
}

}  // namespace vexa::unit
