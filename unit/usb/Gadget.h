// The gadget that vexa-usb composes through configfs, and the FunctionFS instance in it.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

namespace vexa::usb {

// Something that the system lacks or refuses, in words for the person who started the program.
struct SetupError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct GadgetSettings {
    std::string controller;  // as in /sys/class/udc; empty: the only one
    unsigned vendor = 0x1209;
    unsigned product = 0x0001;
    std::string serialNumber;
    std::string manufacturer;
    std::string productName;
    std::string maxSpeed;  // as in configfs, such as "high-speed"; empty: the controller's best
};

// One gadget with one function. The constructor composes it, after it has cleared away what a
// predecessor of the same name left behind; the destructor takes it apart.
class Gadget {
  public:
    // `name` is a file name. Throws SetupError.
    Gadget(const std::string& name, GadgetSettings settings);
    ~Gadget();
    Gadget(const Gadget&) = delete;
    Gadget& operator=(const Gadget&) = delete;

    // Where FunctionFS is mounted.
    [[nodiscard]] const std::filesystem::path& Function() const { return mountPoint; }

    // Shows the gadget to a host. The function's descriptors must have been written. Throws
    // SetupError.
    void Bind();

    [[nodiscard]] const std::string& Controller() const { return settings.controller; }

    // The speed of the bus as the controller says it, such as "high-speed".
    [[nodiscard]] std::string Speed() const;

  private:
    void TakeApart();

    GadgetSettings settings;
    std::filesystem::path gadget;
    std::filesystem::path mountPoint;
    std::string instance;  // the FunctionFS instance
};

}  // namespace vexa::usb
