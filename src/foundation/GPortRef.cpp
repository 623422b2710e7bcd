#include "foundation/GPortRef.h"

#include <array>
#include <cstdlib>
#include <optional>
#include <ostream>
#include <sstream>
#include <utility>

#include "foundation/GUtils.h"

namespace vexa {

namespace {

constexpr std::string_view kElementName = "PortRef";
constexpr std::string_view kPortTypeName = "PortType";
constexpr std::string_view kLocationName = "Location";
constexpr std::string_view kDisplayNameName = "DisplayName";

constexpr std::string_view kAddressPrefix = "IPAddr=";
constexpr std::string_view kPortPrefix = "Port=";
constexpr std::size_t kMaxText = 300;

void WriteAttribute(std::ostream& out, std::string_view name, const auto& value) {
    out << name << "=\"" << value << "\" ";
}

// The characters between the next two double quotes after `name`, from `position` on; moves
// `position` past the closing quote. Nothing, and no move, when any of the three is missing.
std::optional<std::string> TakeAttribute(std::string_view text, std::string_view name,
                                         std::size_t& position) {
    const std::size_t found = text.find(name, position);
    if (found == std::string_view::npos) return std::nullopt;
    const std::size_t open = text.find('"', found + name.size());
    if (open == std::string_view::npos) return std::nullopt;
    const std::size_t close = text.find('"', open + 1);
    if (close == std::string_view::npos) return std::nullopt;
    position = close + 1;
    return std::string(text.substr(open + 1, close - open - 1));
}

std::int32_t ToInteger(const std::string& text, int base) {
    return static_cast<std::int32_t>(std::strtol(text.c_str(), nullptr, base));
}

// Removes the characters up to the first "." or ";" from `rest`, and that separator.
std::uint8_t TakeOctet(std::string_view& rest) {
    const std::size_t end = rest.find_first_of(".;");
    const std::string digits(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    return static_cast<std::uint8_t>(ToInteger(digits, 16));
}

}  // namespace

GPortRef::GPortRef(std::int32_t portType_, std::string location_, std::string addressText_,
                   std::string displayName_, std::int32_t extra1_, std::int32_t extra2_,
                   const std::uint8_t* blob_, std::size_t blobLength_)
    : portType(portType_),
      location(std::move(location_)),
      addressText(std::move(addressText_)),
      displayName(std::move(displayName_)),
      extra1(extra1_),
      extra2(extra2_) {
    if (blob_ != nullptr && blobLength_ != 0) blob.assign(blob_, blob_ + blobLength_);
}

void GPortRef::SetNetworkAddress(std::uint32_t address) {
    ipAddress = address;
    RecomposeAddressText();
}

void GPortRef::SetPort(std::uint16_t tcpPort) {
    port = tcpPort;
    RecomposeAddressText();
}

void GPortRef::RecomposeAddressText() {
    addressText = ComposeAddressText(ipAddress, port);
    if (location.empty()) location = addressText;
    if (displayName.empty()) displayName = addressText;
}

void GPortRef::WriteElement(std::ostream& out) const {
    out << '<' << kElementName << ' ';
    WriteAttribute(out, kPortTypeName, portType);
    WriteAttribute(out, kLocationName, location);
    WriteAttribute(out, kDisplayNameName, displayName);
    out << "/>";
}

bool GPortRef::ReadElement(std::string_view text) {
    const std::size_t element = text.find(kElementName);
    if (element == std::string_view::npos) return false;
    std::size_t position = element + kElementName.size();

    const auto type = TakeAttribute(text, kPortTypeName, position);
    if (type) portType = ToInteger(*type, 10);
    auto where = TakeAttribute(text, kLocationName, position);
    if (where) location = std::move(*where);
    auto name = TakeAttribute(text, kDisplayNameName, position);
    if (name) displayName = std::move(*name);
    return type && where && name;
}

std::int32_t GPortRef::DisplayNameNumber() const {
    const std::string text = displayName.substr(0, kMaxText);
    const std::size_t separator = text.rfind(';');
    return ToInteger(separator == std::string::npos ? text : text.substr(separator + 1), 10);
}

std::string ComposeAddressText(std::uint32_t ipAddress, std::uint16_t port) {
    std::array<std::uint8_t, 4> octets{};
    OSSplit32(ipAddress, &octets[3], &octets[2], &octets[1], &octets[0]);
    std::ostringstream text;
    text << kAddressPrefix << unsigned{octets[0]} << '.' << unsigned{octets[1]} << '.'
         << unsigned{octets[2]} << '.' << unsigned{octets[3]} << ';' << kPortPrefix << port;
    return text.str();
}

bool ParseAddressText(const std::string& text, std::uint32_t& ipAddress, std::uint16_t& port) {
    if (text.size() >= kMaxText) return false;
    std::string_view rest = text;
    if (!rest.starts_with(kAddressPrefix)) return false;
    rest.remove_prefix(kAddressPrefix.size());

    std::array<std::uint8_t, 4> octets{};
    for (std::uint8_t& octet : octets) octet = TakeOctet(rest);
    OSPack32(octets[3], octets[2], octets[1], octets[0], &ipAddress);

    if (!rest.starts_with(kPortPrefix)) return false;
    rest.remove_prefix(kPortPrefix.size());
    port = static_cast<std::uint16_t>(ToInteger(std::string(rest), 16));
    return true;
}

}  // namespace vexa
