// The settings of a virtual unit, as plain values. Their defaults describe the built-in unit. What
// each is called, and which values it may have, is in Settings.cpp.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "model/Faults.h"
#include "sources/SourceSettings.h"

namespace vexa::unit {

// Device types that the model treats specially; all others are modelled as byte streams.
inline constexpr std::uint32_t kDaqType = 5;
[[nodiscard]] constexpr bool IsHidType(std::uint32_t type) { return type >= 2 && type <= 4; }
// Those of them that hosts can open.
[[nodiscard]] constexpr bool IsStreamType(std::uint32_t type) {
    return type == 8 || type == 9 || type == 11;
}

inline constexpr std::uint32_t kHidReportSize = 8;
inline constexpr std::uint32_t kMinBlockSize = 10;  // header, time stamp and one sample
inline constexpr std::uint32_t kMaxBlockSize = 65536;
inline constexpr std::uint32_t kMaxMeasurementSize = 255;
inline constexpr std::size_t kMaxDeviceName = 219;  // bytes; callers' name buffers hold 220
inline constexpr double kMaxRate = 10000;           // blocks per second
inline constexpr std::uint32_t kMaxDelayMs = 600000;

enum class Waveform { kSine, kRamp, kSquare, kNoise };

// One sensor.
struct DeviceSettings {
    std::string name;
    std::uint32_t type = 8;
    bool attached = true;
    std::optional<SourceSettings> source = {};  // nothing: simulated, as the rest says
    std::uint32_t blockSize = 20;               // bytes; kHidReportSize for HID types
    double rate = 10;                           // blocks per second; 0: silent
    Waveform waveform = Waveform::kSine;
    bool echo = true;  // sends back what is written to it

    bool operator==(const DeviceSettings&) const = default;
};

// The acquisition board.
struct DaqSettings {
    std::string name = "Acquisition board";
    bool present = true;
    std::optional<SourceSettings> source = {};  // of its measurements, or the board itself
    bool answersSync = true;
    std::uint32_t syncDelayMs = 20;
    double measurementRate = 10;           // packets per second once synced; 0: none
    std::uint32_t measurementSize = 24;    // bytes
    std::uint32_t checksumErrorEvery = 0;  // every nth measurement has a wrong checksum; 0: none
    bool acknowledges = true;

    bool operator==(const DaqSettings&) const = default;
};

enum class StrayTime { kInterval, kBeforeAnswer, kAfterAnswer };

// An answer without a request.
struct Stray {
    StrayTime when = StrayTime::kInterval;
    std::uint32_t intervalMs = 1000;  // for kInterval
    std::uint32_t command = 0;
    std::int32_t response = 0;

    bool operator==(const Stray&) const = default;
};

// The programs that are an application: commands, each with its arguments. Where there is none the
// command is answered as that of a simulated application.
struct ProgramSettings {
    std::vector<std::string> activate = {};
    std::vector<std::string> deactivate = {};
    std::vector<std::string> query = {};
    std::vector<std::string> notify = {};
    std::uint32_t timeoutMs = 10000;

    bool operator==(const ProgramSettings&) const = default;
};

// One application on the unit.
struct ApplicationSettings {
    bool holds = false;  // drives the hardware when the unit starts
    std::uint32_t delayMs = 20;
    bool silent = false;                                   // accepts commands but never answers
    std::set<std::uint32_t> refuses = {};                  // commands that it refuses
    std::map<std::uint32_t, std::int32_t> responses = {};  // fixed responses, by command
    bool initFails = false;
    std::vector<Stray> strays = {};
    std::optional<ProgramSettings> program = {};

    bool operator==(const ApplicationSettings&) const = default;
};

struct LibrarySettings {
    bool initFails = false;
    std::uint16_t majorVersion = 3;
    std::uint16_t minorVersion = 12;

    bool operator==(const LibrarySettings&) const = default;
};

// A cable that goes out and in by itself.
struct CableFlapping {
    std::uint32_t inMs = 1000;
    std::uint32_t outMs = 1000;
    std::uint32_t times = 0;   // how often it goes out; 0: without end
    std::uint32_t jitter = 0;  // percent by which each time is longer or shorter, at random

    bool operator==(const CableFlapping&) const = default;
};

struct CableSettings {
    bool in = true;                         // false: hosts are turned away
    std::optional<CableFlapping> flapping;  // starts with the cable in

    bool operator==(const CableSettings&) const = default;
};

// The USB node.
struct NodeSettings {
    bool present = true;

    bool operator==(const NodeSettings&) const = default;
};

struct TimelineRequest {
    std::string key;   // in the step
    std::string line;  // the control request

    bool operator==(const TimelineRequest&) const = default;
};

// Changes of the unit at a set time.
struct TimelineStep {
    std::uint32_t atMs = 0;  // from the start of the unit
    std::optional<std::uint32_t> repeatMs = {};
    std::uint32_t times = 0;  // how often it is repeated; 0: without end
    std::vector<TimelineRequest> requests = {};

    bool operator==(const TimelineStep&) const = default;
};

using ApplicationMap = std::map<std::string, ApplicationSettings, std::less<>>;

// The sensors of the default unit, one of each type that hosts can open, and a camera, which they
// cannot.
[[nodiscard]] std::vector<DeviceSettings> DefaultDevices();
// "DAQ", "SPLASH" and "FGEN"; "DAQ" holds the hardware.
[[nodiscard]] ApplicationMap DefaultApplications();

struct Scenario {
    std::vector<DeviceSettings> devices = DefaultDevices();
    DaqSettings daq;
    ApplicationMap applications = DefaultApplications();
    NodeSettings node;
    LibrarySettings library;
    CableSettings cable;
    std::vector<Fault> faults;
    std::vector<TimelineStep> timeline;
    std::uint32_t seed = kDefaultSeed;
    std::string description;

    bool operator==(const Scenario&) const = default;
};

}  // namespace vexa::unit
