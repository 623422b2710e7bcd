#include <cstdio>

#include "tool/Connection.h"
#include "tool/JsonObject.h"
#include "tool/Verbs.h"
#include "vexahost/UsbTransport.h"

namespace vexahost::tool {

namespace {

struct DevicesOptions {
    std::vector<std::string> folders;
    std::vector<std::string> usb;  // as UsbAddress::Parse reads them
    bool json = false;
};

void PrintUsbUnit(const UsbUnit& unit, bool json) {
    const std::string name =
        unit.manufacturer + (unit.manufacturer.empty() ? "" : " ") + unit.product;
    if (json) {
        JsonObject object;
        object.Add("usb", unit.address.Text()).Add("name", name).Add("place", unit.place);
        if (!unit.problem.empty()) object.Add("problem", unit.problem);
        object.PrintLine();
        return;
    }
    std::printf("--usb %s  %s%s%s\n", unit.address.Text().c_str(), name.c_str(),
                name.empty() ? "" : ", ", unit.place.c_str());
    if (!unit.problem.empty()) std::printf("    %s\n", unit.problem.c_str());
}

void PrintVirtualUnit(const std::string& folder, const std::vector<VirtualDevice>& devices,
                      bool json) {
    std::vector<std::string> names;
    for (const VirtualDevice& device : devices) names.push_back(device.name);
    if (json) {
        JsonObject()
            .Add("dir", folder)
            .Add("name", "virtual unit")
            .Add("devices", names)
            .PrintLine();
    } else {
        std::printf("--dir %s  virtual unit with", folder.c_str());
        for (const std::string& name : names) std::printf(" %s", name.c_str());
        std::printf("\n");
    }
}

ExitCode RunDevices(const DevicesOptions& options) {
    std::vector<UsbAddress> addresses;
    for (const std::string& text : options.usb) {
        const auto address = UsbAddress::Parse(text);
        if (!address) return ReportError(address.error());
        addresses.push_back(*address);
    }
    if (addresses.empty()) addresses.emplace_back();
    std::size_t found = 0;
    for (const UsbAddress& address : addresses) {
        for (const UsbUnit& unit : UsbTransport::List(address)) {
            PrintUsbUnit(unit, options.json);
            ++found;
        }
    }
    auto folders = options.folders;
    if (folders.empty()) folders.push_back(DefaultUnitDirectory());
    for (const std::string& folder : folders) {
        UnitAddress unit;
        unit.directory = folder;
        const auto devices = ListDevices(unit);
        if (devices.empty()) continue;
        PrintVirtualUnit(folder, devices, options.json);
        ++found;
    }
    if (found > 0) return kExitDone;
    std::string looked;
    for (std::size_t i = 0; UsbTransport::IsAvailable() && i < addresses.size(); ++i) {
        looked += (i == 0 ? "on the USB (" : ", ") + addresses[i].Text();
        if (i + 1 == addresses.size()) looked += ")";
    }
    for (const std::string& folder : folders) looked += (looked.empty() ? "in " : ", in ") + folder;
    return ReportError({ErrorKind::kCannotConnect, "no unit found: " + looked});
}

}  // namespace

Verb DevicesVerb() {
    const auto options = std::make_shared<DevicesOptions>();
    return {
        .name = "devices",
        .summary = "List the units that are plugged in, and virtual units that run",
        .options = {{"DIR", "", "directories of virtual units ($VEXA_UNIT_DIR, else build/unit)",
                     &options->folders},
                    {"--usb", "VENDOR:PRODUCT",
                     "numbers of units to look for on the USB; can be given again (1209:0001)",
                     &options->usb},
                    {"--json", "", "a JSON object for each unit", &options->json}},
        .notes =
            "Examples: vexa-host devices\n"
            "          vexa-host devices --usb 1209:0002",
        .run = [options] { return RunDevices(*options); }};
}

}  // namespace vexahost::tool
