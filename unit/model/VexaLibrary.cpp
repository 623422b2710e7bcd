#include "model/VexaLibrary.h"

#include <algorithm>
#include <utility>

namespace vexa::unit {

namespace {

constexpr std::chrono::seconds kLookInterval{1};
// With the drivers of all devices, once the service has ended the library.
constexpr std::chrono::milliseconds kLastPatience{500};

}  // namespace

VexaLibrary::VexaLibrary(const Scenario& scenario, FaultTable& faults_)
    : settings(scenario.library),
      seed(scenario.seed),
      faults(faults_),
      devices(scenario.devices),
      daq(scenario.daq) {
    UpdateSources();
}

VexaLibrary::~VexaLibrary() {
    std::thread watching;
    {
        const MutexLock lock(mutex);
        ending = true;
        watching = std::move(watcher);
    }
    ended.notify_all();
    if (watching.joinable()) watching.join();
}

std::map<std::string, SourceSettings, std::less<>> VexaLibrary::WantedSources() const {
    std::map<std::string, SourceSettings, std::less<>> wanted;
    for (const auto& device : devices) {
        if (device.source) wanted[device.name] = *device.source;
    }
    if (daq.source) wanted[daq.name] = *daq.source;
    return wanted;
}

void VexaLibrary::UpdateSources() {
    {
        const MutexLock lock(mutex);
        const auto wanted = WantedSources();
        std::erase_if(sources, [&](const auto& item) {
            const auto found = wanted.find(item.first);
            return found == wanted.end() || found->second != item.second.settings;
        });
        for (const auto& [name, source] : wanted) {
            if (sources.contains(name)) continue;
            const auto make = [name = name, source = source] { return MakeSource(source, name); };
            sources[name] = {source, std::make_shared<SourceDevice>(name, make)};
        }
        if (sources.empty()) return;
        if (!watcher.joinable()) watcher = StartQuietThread([this] { WatchSources(); });
    }
    LookForSources();
}

void VexaLibrary::WatchSources() {
    for (;;) {
        {
            MutexLock lock(mutex);
            const TimePoint next = Clock::now() + kLookInterval;
            while (!ending && Clock::now() < next) ended.wait_until(lock, next);
            if (ending) return;
        }
        LookForSources();
    }
}

void VexaLibrary::LookForSources() {
    std::vector<std::pair<std::string, Sourced>> all;
    {
        const MutexLock lock(mutex);
        all.assign(sources.begin(), sources.end());
    }
    for (const auto& [name, known] : all) {
        const auto missing = WhatIsMissing(known.settings);
        const MutexLock lock(mutex);
        const auto now = sources.find(name);
        if (now == sources.end() || now->second.source != known.source) continue;
        const bool isNew = !std::exchange(now->second.isLookedFor, true);
        if (isNew ? !missing : now->second.present == !missing) {
            now->second.present = !missing;
            continue;
        }
        now->second.present = !missing;
        ++listSignature;
        known.source->Tell(missing ? *missing : NameOf(known.settings) + " is there");
        if (missing) UnplugStreams(name);
    }
}

bool VexaLibrary::IsFound(std::string_view name) const {
    const MutexLock lock(mutex);
    return IsAttached(name);
}

std::uint32_t VexaLibrary::Init() {
    if (settings.initFails) return 0;
    const MutexLock lock(mutex);
    libraries.push_back(++lastHandle);
    return lastHandle;
}

Status VexaLibrary::Uninit(std::uint32_t library) {
    std::vector<std::shared_ptr<DeviceStream>> closing;
    {
        const MutexLock lock(mutex);
        if (!IsOpenLocked(library)) return Status::kBadHandle;
        const auto ofLibrary = [library](const auto& item) {
            return item.second.library == library;
        };
        for (const auto& item : streams) {
            if (ofLibrary(item)) closing.push_back(item.second.stream);
        }
        std::erase(libraries, library);
        std::erase_if(streams, ofLibrary);
        std::erase_if(lists, ofLibrary);
        std::erase_if(openDevices, ofLibrary);
    }
    for (const auto& stream : closing) stream->Close();
    AwaitSources();
    return Status::kOk;
}

void VexaLibrary::AwaitSources() {
    std::vector<std::shared_ptr<SourceDevice>> all;
    {
        const MutexLock lock(mutex);
        if (!libraries.empty()) return;
        for (const auto& [name, known] : sources) all.push_back(known.source);
    }
    const TimePoint end = Clock::now() + kLastPatience;
    for (const auto& source : all) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        if (!source->AwaitEnd(left)) source->Tell("its driver does not return at the end");
    }
}

bool VexaLibrary::IsOpen(std::uint32_t library) const {
    const MutexLock lock(mutex);
    return IsOpenLocked(library);
}

bool VexaLibrary::IsOpenLocked(std::uint32_t library) const {
    return std::ranges::find(libraries, library) != libraries.end();
}

std::optional<std::uint32_t> VexaLibrary::TypeOf(std::string_view name) const {
    const MutexLock lock(mutex);
    if (name == daq.name) return kDaqType;
    const auto device = std::ranges::find(devices, name, &DeviceSettings::name);
    if (device == devices.end()) return std::nullopt;
    return device->type;
}

bool VexaLibrary::IsAttached(std::string_view name) const {
    const auto source = sources.find(name);
    if (source != sources.end() && !source->second.present) return false;
    if (name == daq.name) return daq.present;
    const auto device = std::ranges::find(devices, name, &DeviceSettings::name);
    return device != devices.end() && device->attached;
}

std::vector<std::string> VexaLibrary::AttachedNames(std::uint32_t type) const {
    std::vector<std::string> names;
    if (type == kDaqType && IsAttached(daq.name)) names.push_back(daq.name);
    for (const auto& device : devices) {
        if (device.type == type && IsAttached(device.name)) names.push_back(device.name);
    }
    return names;
}

std::unique_ptr<DeviceModel> VexaLibrary::MakeModel(
    std::string_view name, const std::shared_ptr<SourceDevice>& source) const {
    const TimePoint now = Clock::now();
    // For an ADC the board that has it is simulated; one on a serial line is a board by itself.
    const bool isBoard = name == daq.name && !(daq.source && daq.source->iio.empty());
    if (isBoard) return std::make_unique<DaqBoard>(daq, now);
    if (source) {
        return std::make_unique<SourcedDevice>(
            [source](std::span<const std::uint8_t> bytes) {
                if (!source->Write(bytes)) source->Tell("a write is lost: too many are waiting");
            },
            now);
    }
    const auto& device = *std::ranges::find(devices, name, &DeviceSettings::name);
    if (IsHidType(device.type)) return std::make_unique<HidSensor>(device, now, seed);
    return std::make_unique<StreamSensor>(device, now, seed);
}

std::optional<Snapshot> VexaLibrary::OpenSnapshot(std::uint32_t library, std::uint32_t type) {
    const MutexLock lock(mutex);
    if (!IsOpenLocked(library)) return std::nullopt;
    auto names = AttachedNames(type);
    const Snapshot snapshot{++lastHandle, static_cast<std::uint32_t>(names.size()), listSignature};
    lists[snapshot.handle] = {library, std::move(names)};
    return snapshot;
}

Status VexaLibrary::SnapshotEntry(std::uint32_t snapshot, std::uint32_t index,
                                  std::string& name) const {
    const MutexLock lock(mutex);
    const auto list = lists.find(snapshot);
    if (list == lists.end()) return Status::kBadHandle;
    if (index >= list->second.names.size()) return Status::kNoSuchEntry;
    name = list->second.names[index];
    return Status::kOk;
}

Status VexaLibrary::CloseSnapshot(std::uint32_t snapshot) {
    const MutexLock lock(mutex);
    return lists.erase(snapshot) != 0 ? Status::kOk : Status::kBadHandle;
}

std::uint32_t VexaLibrary::OpenStream(std::uint32_t library, std::string_view name,
                                      VEXA_ReadCallback callback, void* context) {
    const MutexLock lock(mutex);
    if (!IsOpenLocked(library) || !IsAttached(name)) return 0;
    const auto sourced = sources.find(name);
    const auto source = sourced == sources.end() ? nullptr : sourced->second.source;
    const auto stream = std::make_shared<DeviceStream>(std::string(name), MakeModel(name, source),
                                                       faults, callback, context, source);
    const auto opened = streams.emplace(++lastHandle, OpenedStream{library, stream}).first;
    try {
        stream->Start();
    } catch (...) {
        streams.erase(opened);
        throw;
    }
    return lastHandle;
}

std::shared_ptr<DeviceStream> VexaLibrary::FindStream(std::uint32_t stream) const {
    const MutexLock lock(mutex);
    const auto found = streams.find(stream);
    return found == streams.end() ? nullptr : found->second.stream;
}

Status VexaLibrary::Write(std::uint32_t stream, std::span<const std::uint8_t> bytes) {
    const auto found = FindStream(stream);
    if (!found) return Status::kBadHandle;
    if (found->Write(bytes)) return Status::kOk;
    return found->IsUnplugged() ? Status::kNoSuchDevice : Status::kBusy;
}

std::optional<ClosedStream> VexaLibrary::CloseStream(std::uint32_t stream, bool sendsData) {
    std::shared_ptr<DeviceStream> closing;
    {
        const MutexLock lock(mutex);
        const auto found = streams.find(stream);
        if (found == streams.end()) return std::nullopt;
        closing = std::move(found->second.stream);
        streams.erase(found);
    }
    closing->Close(sendsData);
    return ClosedStream{closing->DeviceName(), closing->Counts()};
}

std::optional<std::string> VexaLibrary::StreamDeviceName(std::uint32_t stream) const {
    const auto found = FindStream(stream);
    if (!found) return std::nullopt;
    return found->DeviceName();
}

std::uint32_t VexaLibrary::OpenDevice(std::uint32_t library, std::string_view name) {
    const MutexLock lock(mutex);
    if (!IsOpenLocked(library) || !IsAttached(name)) return 0;
    openDevices[++lastHandle] = {library, std::string(name)};
    return lastHandle;
}

Status VexaLibrary::CloseDevice(std::uint32_t device) {
    const MutexLock lock(mutex);
    return openDevices.erase(device) != 0 ? Status::kOk : Status::kBadHandle;
}

std::optional<std::string> VexaLibrary::OpenDeviceName(std::uint32_t device) const {
    const MutexLock lock(mutex);
    const auto found = openDevices.find(device);
    if (found == openDevices.end()) return std::nullopt;
    return found->second.name;
}

std::vector<DeviceSettings> VexaLibrary::Devices() const {
    const MutexLock lock(mutex);
    return devices;
}

DaqSettings VexaLibrary::Daq() const {
    const MutexLock lock(mutex);
    return daq;
}

std::vector<StreamState> VexaLibrary::Streams() const {
    const MutexLock lock(mutex);
    std::vector<StreamState> states;
    states.reserve(streams.size());
    for (const auto& [handle, opened] : streams) {
        const auto& stream = *opened.stream;
        states.push_back({handle, stream.DeviceName(), stream.Counts(), stream.IsUnplugged()});
    }
    return states;
}

void VexaLibrary::UnplugStreams(std::string_view deviceName) const {
    for (const auto& [handle, opened] : streams) {
        if (opened.stream->DeviceName() == deviceName) opened.stream->Unplug();
    }
}

void VexaLibrary::ChangeDevice(const DeviceSettings& device) {
    SetDevice(device);
    UpdateSources();
}

void VexaLibrary::SetDevice(const DeviceSettings& device) {
    const MutexLock lock(mutex);
    ++listSignature;
    const auto known = std::ranges::find(devices, device.name, &DeviceSettings::name);
    if (known == devices.end()) {
        devices.push_back(device);
    } else {
        *known = device;
    }
    if (!device.attached) UnplugStreams(device.name);
}

void VexaLibrary::ChangeDaq(const DaqSettings& settings_) {
    SetDaq(settings_);
    UpdateSources();
}

void VexaLibrary::SetDaq(const DaqSettings& settings_) {
    const MutexLock lock(mutex);
    if (daq.present != settings_.present) ++listSignature;
    daq = settings_;
    if (!daq.present) UnplugStreams(daq.name);
    for (const auto& [handle, opened] : streams) {
        if (opened.stream->DeviceName() != daq.name) continue;
        opened.stream->Change([changed = daq](DeviceModel& model) {
            if (auto* const board = dynamic_cast<DaqBoard*>(&model)) {
                board->Change(changed, Clock::now());
            }
        });
    }
}

}  // namespace vexa::unit
