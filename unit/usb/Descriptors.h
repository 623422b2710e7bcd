// What the gadget tells a host about its function: one vendor-specific interface with a bulk
// endpoint each way, for every speed, and the descriptors by which Windows loads WinUSB for it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vexa::usb {

// In the order in which FunctionFS names the endpoint files, ep1 and ep2. The kernel may give them
// other addresses on the bus.
inline constexpr std::uint8_t kOutAddress = 0x01;
inline constexpr std::uint8_t kInAddress = 0x82;

// What is written to ep0 first, and then: descriptors, and the interface's name.
[[nodiscard]] std::vector<std::uint8_t> FunctionDescriptors();
[[nodiscard]] std::vector<std::uint8_t> FunctionStrings(const std::string& interfaceName);

}  // namespace vexa::usb
