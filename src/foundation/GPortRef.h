// A port that a device object can open: its kind, its place, its name for a person and, for network
// ports, address and TCP port. A value type: copies are deep. One thread at a time.
//
// As text it is one element on one line, with its values unescaped. The service has no caller for
// the text forms: they belong to the interface.
//   <PortRef PortType="2" Location="/dev/zt-usb" DisplayName="/dev/zt-usb" />
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace vexa {

class GPortRef {
  public:
    // The values of portType in use.
    static constexpr std::int32_t kUSBBulk = 2;
    // The kind of port asked for when enumerating; network references carry it as their type too.
    static constexpr std::int32_t kHostPort = 5;

    // A blob is copied only when both its pointer and its length are non-zero.
    GPortRef(std::int32_t portType, std::string location, std::string addressText,
             std::string displayName, std::int32_t extra1, std::int32_t extra2,
             const std::uint8_t* blob = nullptr, std::size_t blobLength = 0);
    GPortRef(const GPortRef&) = default;
    GPortRef& operator=(const GPortRef&) = default;
    GPortRef(GPortRef&&) = default;
    GPortRef& operator=(GPortRef&&) = default;
    virtual ~GPortRef() = default;

    // Store the IPv4 address (first dotted octet in bits 24-31) or the TCP port and recompose
    // addressText; an empty location or displayName becomes the same text.
    void SetNetworkAddress(std::uint32_t address);
    void SetPort(std::uint16_t tcpPort);

    // Appends the element text.
    void WriteElement(std::ostream& out) const;

    // Sets the fields from the first "PortRef" element in `text`. True when the element and all its
    // attributes were found; a field whose attribute is missing or lacks its quotes is unchanged.
    bool ReadElement(std::string_view text);

    // The decimal number after the last ";" of displayName (the whole of it without a ";"), 0 when
    // there is none; only the first 300 characters count.
    [[nodiscard]] std::int32_t DisplayNameNumber() const;

    std::int32_t portType;
    std::string location;     // device path, or the address text of a network port
    std::string addressText;  // "IPAddr=192.168.0.5;Port=5000"
    std::string displayName;
    std::int32_t extra1;  // not interpreted here
    std::int32_t extra2;
    std::uint32_t ipAddress = 0;
    std::uint16_t port = 0;
    std::int32_t extra3 = 0;
    std::vector<std::uint8_t> blob;

  private:
    void RecomposeAddressText();
};

// "IPAddr=a.b.c.d;Port=n", all numbers decimal.
std::string ComposeAddressText(std::uint32_t ipAddress, std::uint16_t port);

// Reads such a text with all its numbers as hexadecimal: only octets and ports below 10 come back
// as they were composed. False when the text has 300 characters or more or lacks "IPAddr=" or
// "Port="; without "Port=" the address has been stored nevertheless.
bool ParseAddressText(const std::string& text, std::uint32_t& ipAddress, std::uint16_t& port);

}  // namespace vexa
