#include "model/Scenario.h"

namespace vexa::unit {

std::vector<DeviceSettings> DefaultDevices() {
    return {
        {.name = "Accelerometer", .type = 8, .blockSize = 20, .rate = 20},
        {.name = "Spectrometer",
         .type = 9,
         .blockSize = 40,
         .rate = 10,
         .waveform = Waveform::kNoise},
        {.name = "Microphone",
         .type = 11,
         .blockSize = 72,
         .rate = 50,
         .waveform = Waveform::kSquare},
        {.name = "Thermometer", .type = 2, .blockSize = kHidReportSize, .rate = 5},
        {.name = "Barometer", .type = 3, .blockSize = kHidReportSize, .rate = 5},
        {.name = "LightMeter", .type = 4, .blockSize = kHidReportSize, .rate = 5},
        {.name = "Camera", .type = 7, .blockSize = 64, .rate = 0},
    };
}

ApplicationMap DefaultApplications() {
    return {{"DAQ", {.holds = true}}, {"SPLASH", {}}, {"FGEN", {}}};
}

}  // namespace vexa::unit
