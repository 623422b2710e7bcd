// A unit on the USB, through libusb.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vexahost/Transport.h"

namespace vexahost {

// Which unit on the bus.
struct UsbAddress {
    std::uint16_t vendor =
        0x1209;  // the numbers that units have unless their maker gave them others
    std::uint16_t product = 0x0001;
    std::string serialNumber = {};  // empty: any

    // "VENDOR:PRODUCT" or "VENDOR:PRODUCT:SERIAL", the numbers of four hexadecimal digits; empty
    // for any unit with the usual numbers. kInvalidArgument for anything else.
    static Expected<UsbAddress> Parse(const std::string& text);

    // The form that Parse reads.
    [[nodiscard]] std::string Text() const;
};

// A unit that is plugged in.
struct UsbUnit {
    UsbAddress address;
    std::string manufacturer;  // the texts are empty when the unit may not be opened
    std::string product;
    std::string place;    // "bus 1 device 4"
    std::string problem;  // why it cannot be opened; empty if it can
};

// What a unit sends comes behind frame headers. While one host has the unit open no other can.
class UsbTransport final : public Transport {
  public:
    // False when the library was built without libusb: then nothing is ever found.
    [[nodiscard]] static bool IsAvailable();

    // The units with these numbers, and this serial number if there is one, as they are plugged in
    // now. Also those that may not be opened, whose serial number is not known.
    [[nodiscard]] static std::vector<UsbUnit> List(const UsbAddress& address = {});

    // Opens the first such unit, and ends what an earlier host had open on it. kCannotConnect when
    // there is none or it may not be opened; kBusy when another program has it open.
    static Expected<std::unique_ptr<Transport>> Connect(const UsbAddress& address = {});

    // Leaves the unit in order: it closes what this host had open.
    ~UsbTransport() override;
    UsbTransport(const UsbTransport&) = delete;
    UsbTransport& operator=(const UsbTransport&) = delete;

    Expected<std::size_t> Read(std::span<std::uint8_t> buffer,
                               std::chrono::milliseconds timeout) override;
    Expected<std::size_t> Write(std::span<const std::uint8_t> bytes, Deadline deadline) override;
    [[nodiscard]] Framing UnitFraming() const override { return Framing::kFrameHeaders; }
    void Close() override;

  private:
    struct Bus;
    explicit UsbTransport(std::unique_ptr<Bus> opened);

    const std::unique_ptr<Bus> bus;
};

}  // namespace vexahost
