#include "tool/stream/Formats.h"

#include <algorithm>

#include "vexahost/DeviceFile.h"

namespace vexahost::tool {

const char* const kFormatNotes =
    "FORMAT is [NAME:][CHANNEL=]TYPE@OFFSET[xCOUNT]: TYPE is u8, i8, or one of u16 i16 u32 i32 "
    "f32\n"
    "f64 with le or be at the end; OFFSET counts bytes from 0; COUNT samples stand there (1); "
    "NAME:\n"
    "makes it one device's own. A device file (JSON) says the same, with scales, units and rates.\n"
    "Without either the formats of virtual units are known.\n";

std::vector<Option> WithFormatOptions(FormatOptions& formats, std::vector<Option> options) {
    options.push_back({"--devices", "FILE",
                       "device file: where samples stand in blocks (vexa/devices.json in "
                       "$XDG_CONFIG_HOME or ~/.config, if there is one)",
                       &formats.deviceFile});
    options.push_back({"--format", "FORMAT", "where samples stand in a block, one for each channel",
                       &formats.formats});
    return options;
}

Expected<std::shared_ptr<const DeviceFormats>> LoadFormats(
    const FormatOptions& options, const std::vector<std::string>& devices) {
    auto formats = LoadDeviceFormats(options.deviceFile);
    if (!formats) return formats.error();
    std::vector<std::pair<std::string, ChannelFormat>> given;
    for (const std::string& text : options.formats) {
        auto parsed = ParseChannelFormat(text);
        if (!parsed) return parsed.error();
        if (!parsed->first.empty() && std::ranges::find(devices, parsed->first) == devices.end()) {
            return Error{ErrorKind::kInvalidArgument,
                         "--format " + text + ": " + parsed->first + " is not among the devices"};
        }
        given.push_back(std::move(*parsed));
    }
    for (const std::string& device : devices) {
        DeviceFormat format;
        for (const auto& [forDevice, channel] : given) {
            if (!forDevice.empty() && forDevice != device) continue;
            auto& channels = format.channels;
            if (std::ranges::find(channels, channel.name, &ChannelFormat::name) != channels.end()) {
                return Error{ErrorKind::kInvalidArgument,
                             "--format: two channels are called " + channel.name};
            }
            channels.push_back(channel);
        }
        if (!format.channels.empty()) formats->Set(device, std::move(format));
    }
    return std::make_shared<const DeviceFormats>(std::move(*formats));
}

}  // namespace vexahost::tool
