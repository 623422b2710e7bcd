#include "model/VexaLibrary.h"

#include <algorithm>

#include "model/DaqBoard.h"
#include "model/HidSensor.h"
#include "model/StreamSensor.h"

namespace vexa::unit {

VexaLibrary::VexaLibrary(const Scenario& scenario)
    : settings_(scenario.library), devices_(scenario.devices), daq_(scenario.daq) {}

std::uint32_t VexaLibrary::Init() {
    if (settings_.initFails) return 0;
    const std::lock_guard lock(mutex_);
    libraries_.push_back(++lastHandle_);
    return lastHandle_;
}

Status VexaLibrary::Uninit(std::uint32_t library) {
    std::vector<std::shared_ptr<DeviceStream>> streams;
    {
        const std::lock_guard lock(mutex_);
        if (std::erase(libraries_, library) == 0) return Status::kBadHandle;
        const auto ofLibrary = [library](const auto& item) {
            return item.second.library == library;
        };
        for (const auto& item : streams_) {
            if (ofLibrary(item)) streams.push_back(item.second.stream);
        }
        std::erase_if(streams_, ofLibrary);
        std::erase_if(lists_, ofLibrary);
        std::erase_if(openDevices_, ofLibrary);
    }
    for (const auto& stream : streams) stream->Close();
    return Status::kOk;
}

bool VexaLibrary::IsOpen(std::uint32_t library) const {
    const std::lock_guard lock(mutex_);
    return IsOpenLocked(library);
}

bool VexaLibrary::IsOpenLocked(std::uint32_t library) const {
    return std::ranges::find(libraries_, library) != libraries_.end();
}

std::optional<std::uint32_t> VexaLibrary::TypeOf(std::string_view name) const {
    const std::lock_guard lock(mutex_);
    if (name == daq_.name) return kDaqType;
    const auto device = std::ranges::find(devices_, name, &DeviceSettings::name);
    if (device == devices_.end()) return std::nullopt;
    return device->type;
}

bool VexaLibrary::IsAttached(std::string_view name) const {
    if (name == daq_.name) return daq_.present;
    const auto device = std::ranges::find(devices_, name, &DeviceSettings::name);
    return device != devices_.end() && device->attached;
}

std::vector<std::string> VexaLibrary::AttachedNames(std::uint32_t type) const {
    std::vector<std::string> names;
    if (type == kDaqType && daq_.present) names.push_back(daq_.name);
    for (const auto& device : devices_) {
        if (device.attached && device.type == type) names.push_back(device.name);
    }
    return names;
}

std::unique_ptr<DeviceModel> VexaLibrary::MakeModel(std::string_view name) const {
    const TimePoint now = Clock::now();
    if (name == daq_.name) return std::make_unique<DaqBoard>(daq_, now);
    const auto& device = *std::ranges::find(devices_, name, &DeviceSettings::name);
    if (IsHidType(device.type)) return std::make_unique<HidSensor>(device, now);
    return std::make_unique<StreamSensor>(device, now);
}

std::optional<Snapshot> VexaLibrary::OpenSnapshot(std::uint32_t library, std::uint32_t type) {
    const std::lock_guard lock(mutex_);
    if (!IsOpenLocked(library)) return std::nullopt;
    auto names = AttachedNames(type);
    const Snapshot snapshot{++lastHandle_, static_cast<std::uint32_t>(names.size()),
                            listSignature_};
    lists_[snapshot.handle] = {library, std::move(names)};
    return snapshot;
}

Status VexaLibrary::SnapshotEntry(std::uint32_t snapshot, std::uint32_t index,
                                  std::string& name) const {
    const std::lock_guard lock(mutex_);
    const auto list = lists_.find(snapshot);
    if (list == lists_.end()) return Status::kBadHandle;
    if (index >= list->second.names.size()) return Status::kNoSuchEntry;
    name = list->second.names[index];
    return Status::kOk;
}

Status VexaLibrary::CloseSnapshot(std::uint32_t snapshot) {
    const std::lock_guard lock(mutex_);
    return lists_.erase(snapshot) != 0 ? Status::kOk : Status::kBadHandle;
}

std::uint32_t VexaLibrary::OpenStream(std::uint32_t library, std::string_view name,
                                      VEXA_ReadCallback callback, void* context) {
    const std::lock_guard lock(mutex_);
    if (!IsOpenLocked(library) || !IsAttached(name)) return 0;
    const auto stream =
        std::make_shared<DeviceStream>(std::string(name), MakeModel(name), callback, context);
    streams_[++lastHandle_] = {library, stream};
    stream->Start();
    return lastHandle_;
}

std::shared_ptr<DeviceStream> VexaLibrary::FindStream(std::uint32_t stream) const {
    const std::lock_guard lock(mutex_);
    const auto found = streams_.find(stream);
    return found == streams_.end() ? nullptr : found->second.stream;
}

Status VexaLibrary::Write(std::uint32_t stream, std::span<const std::uint8_t> bytes) {
    const auto found = FindStream(stream);
    if (!found) return Status::kBadHandle;
    return found->Write(bytes) ? Status::kOk : Status::kBusy;
}

std::optional<ClosedStream> VexaLibrary::CloseStream(std::uint32_t stream) {
    std::shared_ptr<DeviceStream> closing;
    {
        const std::lock_guard lock(mutex_);
        const auto found = streams_.find(stream);
        if (found == streams_.end()) return std::nullopt;
        closing = std::move(found->second.stream);
        streams_.erase(found);
    }
    closing->Close();
    return ClosedStream{closing->DeviceName(), closing->Counts()};
}

std::optional<std::string> VexaLibrary::StreamDeviceName(std::uint32_t stream) const {
    const auto found = FindStream(stream);
    if (!found) return std::nullopt;
    return found->DeviceName();
}

std::uint32_t VexaLibrary::OpenDevice(std::uint32_t library, std::string_view name) {
    const std::lock_guard lock(mutex_);
    if (!IsOpenLocked(library) || !IsAttached(name)) return 0;
    openDevices_[++lastHandle_] = {library, std::string(name)};
    return lastHandle_;
}

Status VexaLibrary::CloseDevice(std::uint32_t device) {
    const std::lock_guard lock(mutex_);
    return openDevices_.erase(device) != 0 ? Status::kOk : Status::kBadHandle;
}

}  // namespace vexa::unit
