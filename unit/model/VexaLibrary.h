// The device-access library's behaviour: handles, device lists, streams. Its C face is VEXA.cpp.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "VEXA.h"
#include "model/DeviceStream.h"
#include "model/Export.h"
#include "model/Scenario.h"

namespace vexa::unit {

// Status results of the library.
enum class Status : std::int32_t {
    kOk = 0,
    kBadHandle = -1,
    kBadArgument = -2,
    kNoSuchDevice = -3,
    kNoSuchEntry = -4,
    kBusy = -5,
    kFailed = -6,  // by a fault that was set
};

struct Snapshot {
    std::uint32_t handle = 0;
    std::uint32_t count = 0;
    std::uint32_t signature = 0;
};

// A stream that has been closed.
struct ClosedStream {
    std::string deviceName;
    StreamCounts counts;
};

// A stream that is open.
struct StreamState {
    std::uint32_t handle = 0;
    std::string deviceName;
    StreamCounts counts;
    bool unplugged = false;
};

// All calls from any thread. Handles of all kinds come from one counter and are never used again.
class VEXA_UNIT_EXPORT VexaLibrary {
  public:
    // `faults` must outlive the library.
    VexaLibrary(const Scenario& scenario, FaultTable& faults);

    // Handle of a library; 0 when the scenario makes it fail.
    [[nodiscard]] std::uint32_t Init();
    // Also closes all that was opened through this handle.
    [[nodiscard]] Status Uninit(std::uint32_t library);
    [[nodiscard]] bool IsOpen(std::uint32_t library) const;
    [[nodiscard]] const LibrarySettings& Settings() const { return settings; }

    // Type of the device of that name, attached or not.
    [[nodiscard]] std::optional<std::uint32_t> TypeOf(std::string_view name) const;

    // List of the devices of a type that are attached now. Nothing when `library` is not open.
    [[nodiscard]] std::optional<Snapshot> OpenSnapshot(std::uint32_t library, std::uint32_t type);
    [[nodiscard]] Status SnapshotEntry(std::uint32_t snapshot, std::uint32_t index,
                                       std::string& name) const;
    [[nodiscard]] Status CloseSnapshot(std::uint32_t snapshot);

    // Handle of a stream to the attached device of that name; 0 when there is none.
    [[nodiscard]] std::uint32_t OpenStream(std::uint32_t library, std::string_view name,
                                           VEXA_ReadCallback callback, void* context);
    [[nodiscard]] Status Write(std::uint32_t stream, std::span<const std::uint8_t> bytes);
    // Nothing when there is no such stream. No lock is held while its callback is waited for. With
    // `sendsData` the device sends a block meanwhile.
    [[nodiscard]] std::optional<ClosedStream> CloseStream(std::uint32_t stream, bool sendsData);
    [[nodiscard]] std::optional<std::string> StreamDeviceName(std::uint32_t stream) const;

    // A device without a stream, attached ones only; 0 when there is none.
    [[nodiscard]] std::uint32_t OpenDevice(std::uint32_t library, std::string_view name);
    [[nodiscard]] Status CloseDevice(std::uint32_t device);
    [[nodiscard]] std::optional<std::string> OpenDeviceName(std::uint32_t device) const;

    // What the unit consists of now.
    [[nodiscard]] std::vector<DeviceSettings> Devices() const;
    [[nodiscard]] DaqSettings Daq() const;
    [[nodiscard]] std::vector<StreamState> Streams() const;

    // Adds the device, or changes the one of its name: attached or taken away, and described anew
    // for streams opened from now on. Streams to a device that is taken away stay open.
    void ChangeDevice(const DeviceSettings& device);
    // Likewise; all but the name, which stays. Open streams follow.
    void ChangeDaq(const DaqSettings& settings);

  private:
    struct OpenedStream {
        std::uint32_t library;
        std::shared_ptr<DeviceStream> stream;
    };
    struct OpenedList {
        std::uint32_t library;
        std::vector<std::string> names;
    };
    struct OpenedDevice {
        std::uint32_t library;
        std::string name;
    };

    // These need the mutex held.
    [[nodiscard]] bool IsOpenLocked(std::uint32_t library) const;
    [[nodiscard]] bool IsAttached(std::string_view name) const;
    [[nodiscard]] std::vector<std::string> AttachedNames(std::uint32_t type) const;
    [[nodiscard]] std::unique_ptr<DeviceModel> MakeModel(std::string_view name) const;
    void UnplugStreams(std::string_view deviceName) const;

    [[nodiscard]] std::shared_ptr<DeviceStream> FindStream(std::uint32_t stream) const;

    const LibrarySettings settings;
    FaultTable& faults;
    mutable std::mutex mutex;  // guards all below; never held during a callback
    std::vector<DeviceSettings> devices;
    DaqSettings daq;
    std::uint32_t lastHandle = 0;
    std::uint32_t listSignature = 1;  // of the state of the device list
    std::vector<std::uint32_t> libraries;
    std::map<std::uint32_t, OpenedList> lists;
    std::map<std::uint32_t, OpenedStream> streams;
    std::map<std::uint32_t, OpenedDevice> openDevices;
};

}  // namespace vexa::unit
