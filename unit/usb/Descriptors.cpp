#include "usb/Descriptors.h"

#include <linux/usb/functionfs.h>

#include <string_view>

namespace vexa::usb {

namespace {

// Little-endian bytes, one after the other.
class Writer {
  public:
    Writer& U8(unsigned value) {
        bytes.push_back(static_cast<std::uint8_t>(value));
        return *this;
    }
    Writer& U16(unsigned value) { return U8(value & 0xFFU).U8(value >> 8U); }
    Writer& U32(std::uint32_t value) { return U16(value & 0xFFFFU).U16(value >> 16U); }
    Writer& Text(std::string_view text) {
        bytes.insert(bytes.end(), text.begin(), text.end());
        return *this;
    }
    Writer& Append(const Writer& other) {
        bytes.insert(bytes.end(), other.bytes.begin(), other.bytes.end());
        return *this;
    }
    [[nodiscard]] std::uint32_t Size() const { return static_cast<std::uint32_t>(bytes.size()); }

    std::vector<std::uint8_t> bytes;
};

constexpr unsigned kVendorSpecific = 0xFF;
constexpr unsigned kBulk = 2;

struct Speed {
    unsigned packetSize;
    bool isSuper;
};
constexpr Speed kFull{64, false};
constexpr Speed kHigh{512, false};
constexpr Speed kSuper{1024, true};

void AddEndpoint(Writer& out, unsigned address, const Speed& speed) {
    out.U8(USB_DT_ENDPOINT_SIZE)
        .U8(USB_DT_ENDPOINT)
        .U8(address)
        .U8(kBulk)
        .U16(speed.packetSize)
        .U8(0);
    if (speed.isSuper)
        out.U8(USB_DT_SS_EP_COMP_SIZE).U8(USB_DT_SS_ENDPOINT_COMP).U8(0).U8(0).U16(0);
}

// How many descriptors AddFunction adds.
unsigned Count(const Speed& speed) { return speed.isSuper ? 5 : 3; }

void AddFunction(Writer& out, const Speed& speed) {
    constexpr unsigned kEndpoints = 2;
    constexpr unsigned kNameIndex = 1;
    out.U8(USB_DT_INTERFACE_SIZE).U8(USB_DT_INTERFACE).U8(0).U8(0).U8(kEndpoints);
    out.U8(kVendorSpecific).U8(0).U8(0).U8(kNameIndex);
    AddEndpoint(out, kOutAddress, speed);
    AddEndpoint(out, kInAddress, speed);
}

// A header of Microsoft's operating-system descriptors, with the feature that follows it.
Writer OsDescriptor(unsigned index, const Writer& feature) {
    constexpr unsigned kInterface = 0;
    constexpr unsigned kHeaderSize = 11;
    constexpr unsigned kVersion = 1;
    constexpr unsigned kFeatures = 1;
    Writer out;
    out.U8(kInterface).U32(kHeaderSize + feature.Size()).U16(kVersion).U16(index).U16(kFeatures);
    return out.Append(feature);
}

constexpr unsigned kOsDescriptors = 2;

// "This interface is for WinUSB", and the name by which Windows programs find it.
Writer OsDescriptors() {
    constexpr unsigned kCompatibleId = 4;
    constexpr unsigned kProperties = 5;
    constexpr std::uint32_t kUnicode = 1;
    using namespace std::string_view_literals;
    constexpr auto kName = "DeviceInterfaceGUID\0"sv;
    constexpr auto kGuid = "{6E2D0A8C-3B57-4F19-9C64-51A7D8E3B042}\0"sv;

    Writer compatible;
    compatible.U8(0).U8(1).Text("WINUSB\0\0"sv).Text("\0\0\0\0\0\0\0\0"sv).Text("\0\0\0\0\0\0"sv);
    Writer property;
    const auto nameSize = static_cast<unsigned>(kName.size());
    const auto dataSize = static_cast<std::uint32_t>(kGuid.size());
    property.U32(14 + nameSize + dataSize).U32(kUnicode).U16(nameSize).Text(kName);
    property.U32(dataSize).Text(kGuid);
    return OsDescriptor(kCompatibleId, compatible).Append(OsDescriptor(kProperties, property));
}

}  // namespace

std::vector<std::uint8_t> FunctionDescriptors() {
    Writer body;
    for (const Speed& speed : {kFull, kHigh, kSuper}) body.U32(Count(speed));
    body.U32(kOsDescriptors);
    for (const Speed& speed : {kFull, kHigh, kSuper}) AddFunction(body, speed);
    body.Append(OsDescriptors());

    constexpr std::uint32_t kHeadSize = 12;
    constexpr std::uint32_t kFlags = FUNCTIONFS_HAS_FS_DESC | FUNCTIONFS_HAS_HS_DESC |
                                     FUNCTIONFS_HAS_SS_DESC | FUNCTIONFS_HAS_MS_OS_DESC;
    Writer out;
    out.U32(FUNCTIONFS_DESCRIPTORS_MAGIC_V2).U32(kHeadSize + body.Size()).U32(kFlags).Append(body);
    return out.bytes;
}

std::vector<std::uint8_t> FunctionStrings(const std::string& interfaceName) {
    constexpr unsigned kEnglish = 0x0409;
    Writer body;
    body.U32(1).U32(1).U16(kEnglish).Text(interfaceName).U8(0);
    constexpr std::uint32_t kHeadSize = 8;
    Writer out;
    out.U32(FUNCTIONFS_STRINGS_MAGIC).U32(kHeadSize + body.Size()).Append(body);
    return out.bytes;
}

}  // namespace vexa::usb
