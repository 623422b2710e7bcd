// The part of "vexa-unit check" for the device-access library.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <optional>

#include "VEXA.h"
#include "check/CheckCommand.h"
#include "check/Report.h"

namespace vexa::unit {

namespace {

constexpr char kName[] = "libVEXA.so";
constexpr std::int32_t kTraceThreshold = 1;
constexpr std::int32_t kSensorSearch = 1;
constexpr std::int32_t kDaqSearch = 2;
constexpr std::uint32_t kDaqType = 5;
constexpr std::array<std::uint32_t, 6> kSensorTypes = {2, 3, 4, 8, 9, 11};
constexpr std::uint32_t kNoType = 12;
constexpr std::uint32_t kNameCapacity = 220;
constexpr std::size_t kGuard = 36;  // bytes after the name, which the library must not touch
constexpr char kGuardByte = '\x5A';
constexpr char kUnknownName[] = "no such device, please";

struct Functions {
    decltype(VEXA_Init)* init = nullptr;
    decltype(VEXA_Uninit)* uninit = nullptr;
    decltype(VEXA_GetDLLVersion)* version = nullptr;
    decltype(VEXA_Diags_SetDebugTraceThreshold)* traceThreshold = nullptr;
    decltype(VEXA_GetDeviceTypeFromDeviceName)* typeOf = nullptr;
    decltype(VEXA_SearchForDevices)* search = nullptr;
    decltype(VEXA_OpenDeviceListSnapshot)* snapshot = nullptr;
    decltype(VEXA_DeviceListSnapshot_GetNthEntry)* entry = nullptr;
    decltype(VEXA_CloseDeviceListSnapshot)* closeSnapshot = nullptr;
};

// The functions that are called; the others only have to exist.
Functions Find(SharedLibrary& library) {
    Functions functions;
    library.Find("VEXA_Init", functions.init);
    library.Find("VEXA_Uninit", functions.uninit);
    library.Find("VEXA_GetDLLVersion", functions.version);
    library.Find("VEXA_Diags_SetDebugTraceThreshold", functions.traceThreshold);
    library.Find("VEXA_GetDeviceTypeFromDeviceName", functions.typeOf);
    library.Find("VEXA_SearchForDevices", functions.search);
    library.Find("VEXA_OpenDeviceListSnapshot", functions.snapshot);
    library.Find("VEXA_DeviceListSnapshot_GetNthEntry", functions.entry);
    library.Find("VEXA_CloseDeviceListSnapshot", functions.closeSnapshot);
    void (*other)() = nullptr;
    for (const char* name :
         {"VEXA_Device_Stream_Open", "VEXA_Device_Stream_Write", "VEXA_Device_Stream_Close",
          "VEXA_Device_GetOpenDeviceName", "VEXA_Device_Open", "VEXA_Device_Close"}) {
        library.Find(name, other);
    }
    return functions;
}

bool IsSensorType(std::uint32_t type) {
    return std::ranges::find(kSensorTypes, type) != kSensorTypes.end();
}

// Checks an initialised library.
class Check {
  public:
    Check(const Functions& library_, std::uint32_t handle_, Report& report_)
        : library(library_), handle(handle_), report(report_) {}

    void Version() const {
        std::uint16_t major = 0;
        std::uint16_t minor = 0;
        const auto status = Status("VEXA_GetDLLVersion", library.version(handle, &major, &minor));
        if (status) report.Ok("version " + std::to_string(major) + "." + std::to_string(minor));
    }

    void TraceThreshold() const {
        Status("VEXA_Diags_SetDebugTraceThreshold",
               library.traceThreshold(handle, kTraceThreshold));
    }

    void DevicesOfAllTypes() const {
        for (const std::uint32_t type : kSensorTypes) DevicesOf(type, kSensorSearch);
        if (DevicesOf(kDaqType, kDaqSearch) == 0U) {
            report.Missing("an acquisition board, type 5: no host can take the hardware over");
        }
    }

    // A name from the command line.
    void Lookup(const std::string& name) const {
        const auto type = TypeOf(name);
        if (IsSensorType(type)) {
            report.Ok("\"" + name + "\" is of type " + std::to_string(type));
        } else if (type == kDaqType) {
            report.Ok("\"" + name + "\" is of type 5, the acquisition board's");
        } else if (type == kNoType) {
            report.Missing("\"" + name + "\": the library knows no such device");
        } else {
            report.Odd("\"" + name + "\" is of type " + std::to_string(type) +
                       ", which no host can open");
        }
    }

    // The service decides by the type alone whether a device can be opened.
    void LookupOfUnknownName() const {
        const auto type = TypeOf(kUnknownName);
        if (type != kNoType) {
            report.Odd("VEXA_GetDeviceTypeFromDeviceName: an unknown name is of type " +
                       std::to_string(type) + "; a host could open it");
        }
    }

    void Uninit() const {
        report.Calling("VEXA_Uninit");
        if (Status("VEXA_Uninit", library.uninit(handle))) report.Ok("VEXA_Uninit");
    }

  private:
    // Whether `status` is success; if not, reports it.
    bool Status(const std::string& call, std::int32_t status) const {
        if (status != 0) report.Odd(call + " gave " + std::to_string(status) + ", not 0");
        return status == 0;
    }

    [[nodiscard]] std::uint32_t TypeOf(const std::string& name) const {
        std::uint32_t type = kNoType;
        report.Calling("VEXA_GetDeviceTypeFromDeviceName");
        library.typeOf(name.c_str(), &type);
        return type;
    }

    // Lists the devices of a type; returns their number.
    std::uint32_t DevicesOf(std::uint32_t type, std::int32_t searchMode) const {
        const std::string ofType = " of type " + std::to_string(type);
        std::uint32_t word = 0;
        report.Calling("VEXA_SearchForDevices");
        Status("VEXA_SearchForDevices" + ofType,
               library.search(handle, type, searchMode, 0, &word));
        std::uint32_t count = 0;
        std::uint32_t signature = 0;
        report.Calling("VEXA_OpenDeviceListSnapshot");
        const auto snapshot = library.snapshot(handle, type, &count, &signature);
        if (snapshot == 0) {
            report.Odd("VEXA_OpenDeviceListSnapshot" + ofType + " gave no snapshot");
            return 0;
        }
        std::string names;
        for (std::uint32_t index = 0; index < count; ++index) {
            const auto name = Entry(snapshot, index, ofType);
            if (!name) break;
            names += (index == 0 ? ": " : ", ") + *name;
            if (const auto named = TypeOf(*name); named != type) {
                report.Odd("\"" + *name + "\" is listed as" + ofType + ", but looked up it is" +
                           (named == kNoType ? " unknown" : " of type " + std::to_string(named)));
            }
        }
        report.Calling("VEXA_CloseDeviceListSnapshot");
        Status("VEXA_CloseDeviceListSnapshot", library.closeSnapshot(snapshot));
        report.Ok(std::to_string(count) + " attached" + ofType + names);
        return count;
    }

    // The name of an entry; if something is wrong with it, reports that and returns nothing.
    [[nodiscard]] std::optional<std::string> Entry(std::uint32_t snapshot, std::uint32_t index,
                                                   const std::string& ofType) const {
        const std::string call =
            "VEXA_DeviceListSnapshot_GetNthEntry" + ofType + ", entry " + std::to_string(index);
        std::array<char, kNameCapacity + kGuard> name{};
        name.fill(kGuardByte);
        std::uint32_t word = 0;
        report.Calling("VEXA_DeviceListSnapshot_GetNthEntry");
        if (!Status(call, library.entry(snapshot, index, name.data(), kNameCapacity, &word))) {
            return std::nullopt;
        }
        const auto end = name.begin() + kNameCapacity;
        if (std::any_of(end, name.end(), [](char byte) { return byte != kGuardByte; })) {
            report.Odd(call + " writes beyond the " + std::to_string(kNameCapacity) +
                       " bytes that it was given");
            return std::nullopt;
        }
        const auto terminator = std::find(name.begin(), end, '\0');
        if (terminator == end) {
            report.Odd(call + " gives a name that does not end");
            return std::nullopt;
        }
        return std::string(name.begin(), terminator);
    }

    const Functions& library;
    const std::uint32_t handle;
    Report& report;
};

}  // namespace

void CheckVexa(const std::string& path, const std::vector<std::string>& devices, Report& report) {
    SharedLibrary shared(kName, path, report);
    const Functions library = Find(shared);
    if (!shared.IsComplete("VEXA.h")) return;
    report.Calling("VEXA_Init");
    const auto handle = library.init();
    if (handle == 0) {
        return report.Odd("VEXA_Init gave no handle: the service would end at once");
    }
    report.Ok("VEXA_Init gave the handle " + std::to_string(handle));
    const Check check(library, handle, report);
    check.Version();
    check.TraceThreshold();
    check.DevicesOfAllTypes();
    check.LookupOfUnknownName();
    for (const auto& device : devices) check.Lookup(device);
    check.Uninit();
}

}  // namespace vexa::unit
