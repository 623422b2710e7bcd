// The metrics in Prometheus' text format.
#include <array>
#include <charconv>
#include <cmath>
#include <functional>

#include "page/Messages.h"

namespace vexahost::page {

namespace {

std::string Number(double value) {
    if (std::isnan(value)) return "NaN";
    std::array<char, 32> text;
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
    return {text.data(), end};
}

std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char letter : text) {
        if (letter == '\\' || letter == '"') quoted += '\\';
        if (letter == '\n')
            quoted += "\\n";
        else
            quoted += letter;
    }
    return quoted + '"';
}

}  // namespace

std::string MetricsText(const UnitState& state, std::size_t viewers, std::uint64_t droppedFrames) {
    std::string text;
    const auto family = [&text](const std::string& name, const char* type, const char* help) {
        text += "# HELP " + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n';
    };
    const auto single = [&](const std::string& name, const char* type, const char* help,
                            double value) {
        family(name, type, help);
        text += name + ' ' + Number(value) + '\n';
    };
    single("vexa_link_up", "gauge", "1 while the unit is connected",
           state.link == LinkState::kUp ? 1 : 0);
    single("vexa_link_losses_total", "counter", "Times that the link was lost",
           static_cast<double>(state.losses));
    single("vexa_daq_taken", "gauge", "1 while this host has the acquisition hardware",
           state.daqTaken ? 1 : 0);
    single("vexa_round_trip_seconds", "gauge", "Of the newest request that the unit answered",
           state.roundTripSeconds.value_or(NAN));
    single("vexa_received_bytes_total", "counter", "From devices and the DAQ",
           static_cast<double>(state.bytesReceived));
    single("vexa_resynchronisations_total", "counter", "Times that the unit had cut packets",
           static_cast<double>(state.statistics.resynchronisations));
    single("vexa_viewers", "gauge", "Pages that look", static_cast<double>(viewers));
    single("vexa_viewer_dropped_frames_total", "counter",
           "Sample frames that viewers were too slow for", static_cast<double>(droppedFrames));
    const auto each = [&](const std::string& name, const char* type, const char* help,
                          const std::function<double(const WatchedDevice&)>& value) {
        family(name, type, help);
        for (const WatchedDevice& device : state.devices) {
            text += name + "{device=" + Quoted(device.name) + ",child=\"" +
                    std::to_string(device.child) + "\"} " + Number(value(device)) + '\n';
        }
    };
    each("vexa_device_blocks_total", "counter", "Blocks of the device",
         [](const auto& device) { return static_cast<double>(device.statistics.blocks); });
    each("vexa_device_gaps_total", "counter", "Gaps in the sequence numbers",
         [](const auto& device) { return static_cast<double>(device.statistics.sequenceGaps); });
    each("vexa_device_dropped_total", "counter", "Blocks that were dropped from a full queue",
         [](const auto& device) { return static_cast<double>(device.statistics.dropped); });
    each("vexa_device_samples_per_second", "gauge", "Measured rate of a channel",
         [](const auto& device) { return device.rate.value_or(0); });
    return text;
}

}  // namespace vexahost::page
