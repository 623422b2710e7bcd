#include "usb/Gadget.h"

#include <sys/mount.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <system_error>
#include <utility>
#include <vector>

namespace vexa::usb {

namespace {

namespace fs = std::filesystem;

const fs::path kConfigfs = "/sys/kernel/config";
const fs::path kControllers = "/sys/class/udc";
const fs::path kRunFolder = "/run/vexa-usb";

// Writes the value of an attribute: one call, so that the kernel's answer is this value's.
void Set(const fs::path& attribute, const std::string& value) {
    std::FILE* const file = std::fopen(attribute.c_str(), "we");
    bool isSet = file != nullptr && std::fputs((value + "\n").c_str(), file) >= 0;
    if (file != nullptr) isSet = (std::fclose(file) == 0) && isSet;
    const int why = errno;
    if (!isSet) {
        throw SetupError("cannot write \"" + value + "\" to " + attribute.string() + ": " +
                         std::strerror(why));
    }
}

std::string Hex16(unsigned value) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x", value);
    return text;
}

std::string FirstLine(const fs::path& file) {
    std::string line;
    std::ifstream stream(file);
    std::getline(stream, line);
    return line;
}

void MakeFolder(const fs::path& folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) throw SetupError("cannot make " + folder.string() + ": " + error.message());
}

void RequireConfigfs() {
    // The type is looked at, as the folder is there on every kernel that could mount it.
    constexpr long kConfigfsMagic = 0x62656570;
    struct statfs status {};
    const auto isMounted = [&] {
        return statfs(kConfigfs.c_str(), &status) == 0 && status.f_type == kConfigfsMagic;
    };
    if (!isMounted()) mount("configfs", kConfigfs.c_str(), "configfs", 0, nullptr);
    if (!isMounted()) {
        throw SetupError("no configfs at " + kConfigfs.string() +
                         ": the kernel needs CONFIGFS_FS (modprobe configfs)");
    }
    if (!fs::exists(kConfigfs / "usb_gadget")) {
        throw SetupError("no " + (kConfigfs / "usb_gadget").string() +
                         ": the kernel needs USB_LIBCOMPOSITE (modprobe libcomposite)");
    }
}

std::string ChooseController(const std::string& wanted) {
    std::vector<std::string> found;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(kControllers, error)) {
        found.push_back(entry.path().filename());
    }
    std::string names;
    for (const std::string& name : found) names += (names.empty() ? "" : ", ") + name;
    if (!wanted.empty()) {
        for (const std::string& name : found) {
            if (name == wanted) return name;
        }
        throw SetupError("no USB device controller " + wanted +
                         "; there are: " + (names.empty() ? "none" : names));
    }
    if (found.empty()) {
        throw SetupError("no USB device controller in " + kControllers.string() +
                         ": its driver is not loaded, or the port is set up for a host");
    }
    if (found.size() > 1)
        throw SetupError("more than one USB device controller; choose with --udc: " + names);
    return found.front();
}

}  // namespace

Gadget::Gadget(const std::string& name, GadgetSettings settings_) : settings(std::move(settings_)) {
    RequireConfigfs();
    settings.controller = ChooseController(settings.controller);
    instance = "vexa-" + name;
    gadget = kConfigfs / "usb_gadget" / instance;
    mountPoint = kRunFolder / (name + ".ffs");
    TakeApart();
    try {
        MakeFolder(gadget);
        Set(gadget / "idVendor", Hex16(settings.vendor));
        Set(gadget / "idProduct", Hex16(settings.product));
        Set(gadget / "bcdUSB", "0x0200");
        const fs::path texts = gadget / "strings" / "0x409";
        MakeFolder(texts);
        Set(texts / "serialnumber", settings.serialNumber);
        Set(texts / "manufacturer", settings.manufacturer);
        Set(texts / "product", settings.productName);
        if (!settings.maxSpeed.empty()) Set(gadget / "max_speed", settings.maxSpeed);

        const fs::path function = gadget / "functions" / ("ffs." + instance);
        const fs::path configuration = gadget / "configs" / "c.1";
        MakeFolder(configuration);
        std::error_code error;
        fs::create_directory(function, error);
        if (error) {
            throw SetupError("cannot make " + function.string() + ": " + error.message() +
                             "; the kernel needs USB_CONFIGFS_F_FS (modprobe usb_f_fs)");
        }
        fs::create_directory_symlink(function, configuration / "function");
        Set(gadget / "os_desc" / "b_vendor_code", "0x56");
        Set(gadget / "os_desc" / "qw_sign", "MSFT100");
        Set(gadget / "os_desc" / "use", "1");
        fs::create_directory_symlink(configuration, gadget / "os_desc" / "configuration");

        MakeFolder(mountPoint);
        if (mount(instance.c_str(), mountPoint.c_str(), "functionfs", 0, nullptr) != 0) {
            throw SetupError("cannot mount FunctionFS at " + mountPoint.string() + ": " +
                             std::strerror(errno));
        }
    } catch (const fs::filesystem_error& error) {
        TakeApart();
        throw SetupError(error.what());
    } catch (...) {
        TakeApart();
        throw;
    }
}

Gadget::~Gadget() { TakeApart(); }

void Gadget::Bind() {
    try {
        Set(gadget / "UDC", settings.controller);
    } catch (const SetupError& error) {
        throw SetupError("the controller " + settings.controller +
                         " does not accept the gadget (does another one use it?): " + error.what());
    }
}

std::string Gadget::Speed() const {
    return FirstLine(kControllers / settings.controller / "current_speed");
}

// In the reverse order of composing. What is not there is passed over; configfs removes the files
// of a folder with it.
void Gadget::TakeApart() {
    std::error_code ignored;
    if (!FirstLine(gadget / "UDC").empty()) {
        try {
            Set(gadget / "UDC", "");
        } catch (const SetupError&) {
            // Unbound already.
        }
    }
    fs::remove(gadget / "os_desc" / "configuration", ignored);
    fs::remove(gadget / "configs" / "c.1" / "function", ignored);
    umount2(mountPoint.c_str(), MNT_DETACH);
    for (const char* folder : {"configs/c.1", "strings/0x409"}) rmdir((gadget / folder).c_str());
    rmdir((gadget / "functions" / ("ffs." + instance)).c_str());
    rmdir(gadget.c_str());
    rmdir(mountPoint.c_str());
    rmdir(kRunFolder.c_str());
}

}  // namespace vexa::usb
