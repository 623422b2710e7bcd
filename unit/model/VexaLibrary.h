// The behaviour of the device-access library: handles, device lists, streams. VEXA.cpp is its C
// interface.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "VEXA.h"
#include "foundation/Mutex.h"
#include "model/DeviceStream.h"
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
    kFailed = -6,  // a fault that was set, or nothing left to serve the call with
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

// Any thread. Handles of all kinds come from one counter and are never reused.
class VEXA_UNIT_EXPORT VexaLibrary {
  public:
    // `faults` must outlive the library.
    VexaLibrary(const Scenario& scenario, FaultTable& faults);
    VexaLibrary(const VexaLibrary&) = delete;
    VexaLibrary& operator=(const VexaLibrary&) = delete;
    ~VexaLibrary();

    // Handle of a library; 0 when the scenario makes it fail.
    [[nodiscard]] std::uint32_t Init();
    // Also closes everything that was opened through this handle.
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

    // Handle of a stream to the attached device of that name; 0 when there is none. Throws
    // std::system_error when there is no thread left for it.
    [[nodiscard]] std::uint32_t OpenStream(std::uint32_t library, std::string_view name,
                                           VEXA_ReadCallback callback, void* context);
    [[nodiscard]] Status Write(std::uint32_t stream, std::span<const std::uint8_t> bytes);
    // Nothing when there is no such stream. No lock is held while it waits for the callback. With
    // `sendsData` the device sends one more block meanwhile.
    [[nodiscard]] std::optional<ClosedStream> CloseStream(std::uint32_t stream, bool sendsData);
    [[nodiscard]] std::optional<std::string> StreamDeviceName(std::uint32_t stream) const;

    // Handle of the attached device of that name, without a stream; 0 when there is none.
    [[nodiscard]] std::uint32_t OpenDevice(std::uint32_t library, std::string_view name);
    [[nodiscard]] Status CloseDevice(std::uint32_t device);
    [[nodiscard]] std::optional<std::string> OpenDeviceName(std::uint32_t device) const;

    // The current state of the unit's devices.
    [[nodiscard]] std::vector<DeviceSettings> Devices() const;
    [[nodiscard]] DaqSettings Daq() const;
    [[nodiscard]] std::vector<StreamState> Streams() const;

    // Whether the device of that name can be found: it is attached, and its source, if it has one,
    // is there.
    [[nodiscard]] bool IsFound(std::string_view name) const;

    // Adds the device, or replaces the settings of the one with its name: whether it is attached,
    // and how it behaves on streams opened from now on. Streams to a detached device stay open.
    void ChangeDevice(const DeviceSettings& device);
    // Replaces the board's settings except its name. Open streams follow.
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

    // What is known of a device with a source.
    struct Sourced {
        SourceSettings settings;
        std::shared_ptr<SourceDevice> source;
        bool present = false;
        bool isLookedFor = false;
    };

    // Looks every second whether the sources are there, and unplugs the streams of those that have
    // gone.
    void WatchSources();
    void LookForSources();
    // Makes the sources of the devices, where they are not as the settings say.
    void UpdateSources();
    // Once no library is open: waits a little for the drivers, so that they find an end in order.
    void AwaitSources();
    void SetDevice(const DeviceSettings& device);
    void SetDaq(const DaqSettings& settings);
    [[nodiscard]] std::map<std::string, SourceSettings, std::less<>> WantedSources() const
        VEXA_REQUIRES(mutex);

    [[nodiscard]] bool IsOpenLocked(std::uint32_t library) const VEXA_REQUIRES(mutex);
    [[nodiscard]] bool IsAttached(std::string_view name) const VEXA_REQUIRES(mutex);
    [[nodiscard]] std::vector<std::string> AttachedNames(std::uint32_t type) const
        VEXA_REQUIRES(mutex);
    [[nodiscard]] std::unique_ptr<DeviceModel> MakeModel(
        std::string_view name, const std::shared_ptr<SourceDevice>& source) const
        VEXA_REQUIRES(mutex);
    void UnplugStreams(std::string_view deviceName) const VEXA_REQUIRES(mutex);

    [[nodiscard]] std::shared_ptr<DeviceStream> FindStream(std::uint32_t stream) const;

    const LibrarySettings settings;
    const std::uint32_t seed;
    FaultTable& faults;
    mutable Mutex mutex;  // never held during a callback
    std::vector<DeviceSettings> devices VEXA_GUARDED_BY(mutex);
    DaqSettings daq VEXA_GUARDED_BY(mutex);
    std::uint32_t lastHandle VEXA_GUARDED_BY(mutex) = 0;
    std::uint32_t listSignature VEXA_GUARDED_BY(mutex) = 1;  // changes with the list of devices
    std::vector<std::uint32_t> libraries VEXA_GUARDED_BY(mutex);
    std::map<std::uint32_t, OpenedList> lists VEXA_GUARDED_BY(mutex);
    std::map<std::uint32_t, OpenedStream> streams VEXA_GUARDED_BY(mutex);
    std::map<std::uint32_t, OpenedDevice> openDevices VEXA_GUARDED_BY(mutex);
    std::map<std::string, Sourced, std::less<>> sources VEXA_GUARDED_BY(mutex);
    std::condition_variable_any ended;
    bool ending VEXA_GUARDED_BY(mutex) = false;
    std::thread watcher VEXA_GUARDED_BY(mutex);  // once there is a source
};

}  // namespace vexa::unit
