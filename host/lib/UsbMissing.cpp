// In place of UsbTransport.cpp where libusb is missing.
#include "vexahost/UsbTransport.h"

namespace vexahost {

namespace {

Error Missing() {
    return {ErrorKind::kCannotConnect,
            "this program was built without USB (libusb-1.0 was missing)"};
}

}  // namespace

struct UsbTransport::Bus {};

bool UsbTransport::IsAvailable() { return false; }

std::vector<UsbUnit> UsbTransport::List(const UsbAddress& /*address*/) { return {}; }

Expected<std::unique_ptr<Transport>> UsbTransport::Connect(const UsbAddress& /*address*/) {
    return Missing();
}

UsbTransport::~UsbTransport() = default;

Expected<std::size_t> UsbTransport::Read(std::span<std::uint8_t> /*buffer*/,
                                         std::chrono::milliseconds /*timeout*/) {
    return Missing();
}

Expected<std::size_t> UsbTransport::Write(std::span<const std::uint8_t> /*bytes*/,
                                          Deadline /*deadline*/) {
    return Missing();
}

void UsbTransport::Close() {}

}  // namespace vexahost
