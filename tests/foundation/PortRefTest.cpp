#include <gtest/gtest.h>

#include <sstream>

#include "foundation/GPortRef.h"

namespace vexa {
namespace {

std::string Element(const GPortRef& port) {
    std::ostringstream text;
    port.WriteElement(text);
    return text.str();
}

TEST(GPortRef, WritesAndReadsItsElement) {
    const GPortRef port(3, "/dev/x", "", "the x", 0, 0);
    EXPECT_EQ(Element(port), R"(<PortRef PortType="3" Location="/dev/x" DisplayName="the x" />)");
    GPortRef read(0, "", "", "", 0, 0);
    EXPECT_TRUE(read.ReadElement("<List>" + Element(port) + "</List>"));
    EXPECT_EQ(Element(read), Element(port));
}

TEST(GPortRef, KeepsFieldsThatAnElementLacks) {
    for (const char* text : {"", "<Port />", R"(<PortRef PortType="9 />)",
                             "<PortRef PortType=", R"(<PortRef Location="l" />)"}) {
        GPortRef port(1, "where", "", "what", 0, 0);
        EXPECT_FALSE(port.ReadElement(text)) << text;
        EXPECT_EQ(port.portType, 1) << text;
        EXPECT_EQ(port.displayName, "what") << text;
    }
}

TEST(GPortRef, SettersFillTheEmptyTexts) {
    GPortRef port(5, "", "", "shown", 0, 0);
    port.SetNetworkAddress(0xC0A80005);
    EXPECT_EQ(port.location, "IPAddr=192.168.0.5;Port=0");
    port.SetPort(5000);
    EXPECT_EQ(port.addressText, "IPAddr=192.168.0.5;Port=5000");
    EXPECT_EQ(port.location, "IPAddr=192.168.0.5;Port=0") << "it was not empty any more";
    EXPECT_EQ(port.displayName, "shown");
}

TEST(AddressText, IsReadAsHexadecimalAlthoughWrittenAsDecimal) {
    struct Case {
        std::string text;
        bool result;
        std::uint32_t address;
        std::uint16_t port;
    };
    for (const Case& c : {Case{"IPAddr=1.2.3.4;Port=9", true, 0x01020304, 9},
                          {"IPAddr=10.0.0.1;Port=10", true, 0x10000001, 16},
                          {"IPAddr=1ff.x.3;4;Port=12345", true, 0xFF000304, 0x2345},
                          {"IPAddr=1.2.3.4;Prt=5", false, 0x01020304, 77},
                          {"IPAddr=", false, 0, 77},
                          {"ipaddr=1.2.3.4;Port=9", false, 77, 77},
                          {"IPAddr=1.2.3.4;Port=9" + std::string(279, ' '), false, 77, 77},
                          {"IPAddr=1.2.3.4;Port=9" + std::string(278, ' '), true, 0x01020304, 9}}) {
        std::uint32_t address = 77;
        std::uint16_t port = 77;
        EXPECT_EQ(ParseAddressText(c.text, address, port), c.result) << c.text;
        EXPECT_EQ(address, c.address) << c.text;
        EXPECT_EQ(port, c.port) << c.text;
    }
}

}  // namespace
}  // namespace vexa
