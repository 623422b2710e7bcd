// In place of DeviceFile.cpp where there is no JSON parser.
#include "vexahost/DeviceFile.h"

namespace vexahost {

Expected<DeviceFormats> ParseDeviceFile(std::string_view /*text*/, const std::string& name) {
    return Error{ErrorKind::kInvalidArgument,
                 name + ": this library was built without nlohmann-json and reads no device files"};
}

}  // namespace vexahost
