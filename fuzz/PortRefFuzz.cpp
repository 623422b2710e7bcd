// Element and address texts of port references. Stated: a reference that was read is written as an
// element that reads back to the same fields; an address that is composed is taken again.
#include <sstream>
#include <string>

#include "Require.h"
#include "foundation/GPortRef.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    vexa::GPortRef read(vexa::GPortRef::kUSBBulk, "", "", "", 0, 0);
    const bool whole = read.ReadElement(text);
    (void)read.DisplayNameNumber();
    if (whole) {
        std::ostringstream written;
        read.WriteElement(written);
        vexa::GPortRef again(vexa::GPortRef::kUSBBulk, "", "", "", 0, 0);
        REQUIRE(again.ReadElement(written.str()));
        REQUIRE(again.portType == read.portType && again.location == read.location &&
                again.displayName == read.displayName);
    }
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    if (vexa::ParseAddressText(text, address, port)) {
        const std::string composed = vexa::ComposeAddressText(address, port);
        REQUIRE(vexa::ParseAddressText(composed, address, port));
    }
    return 0;
}
