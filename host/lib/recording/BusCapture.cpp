#include "lib/recording/BusCapture.h"

#include <utility>

#include "vexahost/protocol/FrameHeader.h"
#include "vexahost/protocol/InitialSync.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost {

namespace {

using Bytes = std::span<const std::uint8_t>;

// Linux, in the byte order of the machine:
//   8 type ('S' submitted, 'C' completed), 9 kind of transfer, 10 endpoint, 11 device,
//   12 bus (2 bytes), 14 zero for a control request, 36 bytes that follow (4), 40 control request
constexpr std::size_t kUsbmonRequest = 40;
constexpr std::size_t kControlRequestSize = 8;

// Windows, little-endian:
//   0 size of this header (2), 16 bit 0: completed, 17 bus (2), 19 device (2), 21 endpoint,
//   22 kind of transfer, 27 zero for a control request
constexpr std::size_t kUsbPcapSize = 27;
constexpr std::size_t kUsbPcapControlSize = 28;

constexpr std::uint8_t kControl = 2;
constexpr std::uint8_t kBulk = 3;
constexpr std::uint8_t kFromDevice = 0x80;  // in an endpoint's number

std::uint32_t Load16(Bytes bytes, std::size_t at, bool bigEndian) {
    return bigEndian ? bytes[at] * 256U + bytes[at + 1] : bytes[at + 1] * 256U + bytes[at];
}

std::uint32_t DeviceOf(std::uint32_t bus, std::uint32_t address) { return bus << 16U | address; }

std::optional<BusTransfer> ReadUsbmon(std::size_t headerSize, bool bigEndian, Bytes record) {
    if (record.size() < headerSize) return std::nullopt;
    const std::uint8_t type = record[8];
    const std::uint8_t kind = record[9];
    const bool toUnit = (record[10] & kFromDevice) == 0;
    const std::uint32_t device = DeviceOf(Load16(record, 12, bigEndian), record[11]);
    if (kind == kControl && type == 'S' && record[14] == 0) {
        return BusTransfer{device, false, true,
                           record.subspan(kUsbmonRequest, kControlRequestSize)};
    }
    if (kind != kBulk || type != static_cast<std::uint8_t>(toUnit ? 'S' : 'C')) return std::nullopt;
    return BusTransfer{device, true, toUnit, record.subspan(headerSize)};
}

std::optional<BusTransfer> ReadUsbPcap(Bytes record) {
    if (record.size() < kUsbPcapSize) return std::nullopt;
    const std::size_t headerSize = Load16(record, 0, false);
    if (headerSize < kUsbPcapSize || headerSize > record.size()) return std::nullopt;
    const bool isCompleted = (record[16] & 1U) != 0;
    const bool toUnit = (record[21] & kFromDevice) == 0;
    const std::uint32_t device = DeviceOf(Load16(record, 17, false), Load16(record, 19, false));
    const Bytes data = record.subspan(headerSize);
    if (record[22] == kControl && headerSize >= kUsbPcapControlSize && record[27] == 0 &&
        data.size() >= kControlRequestSize) {
        return BusTransfer{device, false, true, data.first(kControlRequestSize)};
    }
    if (record[22] != kBulk || isCompleted == toUnit) return std::nullopt;
    return BusTransfer{device, true, toUnit, data};
}

// SET_CONFIGURATION and SET_INTERFACE, as programs send them that take or release a unit.
bool BeginsAnew(Bytes request) {
    return (request[0] == 0 && request[1] == 9) || (request[0] == 1 && request[1] == 11);
}

bool HasInitialSync(Bytes bytes) {
    for (; bytes.size() >= vexa::kInitialSyncSize; bytes = bytes.subspan(1)) {
        if (vexa::IsInitialSync(bytes.first(vexa::kInitialSyncSize))) return true;
    }
    return false;
}

bool BeginsWithFrameHeader(Bytes bytes) {
    return bytes.size() >= vexa::kFrameHeaderSize &&
           vexa::IsFrameHeader(bytes.first<vexa::kFrameHeaderSize>());
}

}  // namespace

std::optional<BusTransfer> ReadBusTransfer(BusHeader header, bool bigEndian, Bytes record) {
    switch (header) {
        case BusHeader::kUsbmonShort:
            return ReadUsbmon(48, bigEndian, record);
        case BusHeader::kUsbmonLong:
            return ReadUsbmon(64, bigEndian, record);
        case BusHeader::kUsbPcap:
            return ReadUsbPcap(record);
    }
    return std::nullopt;
}

void BusCapture::BeginFrames(Unit& unit, std::uint32_t device) {
    unit.isBroken = false;
    unit.frames.emplace(Framing::kFrameHeaders, [this, &unit, device](Bytes frame) {
        unit.isBroken = !BeginsWithFrameHeader(frame);
        frames.push_back({now, Direction::kFromUnit, {frame.begin(), frame.end()}, "", device});
    });
}

void BusCapture::Add(CaptureTime time, const BusTransfer& transfer) {
    now = time;
    auto& unit = units[transfer.device];
    if (!transfer.isBulk) {
        if (!unit || !BeginsAnew(transfer.bytes)) return;
        BeginFrames(*unit, transfer.device);
        frames.push_back({time, Direction::kToUnit, {}, kCableIn, transfer.device});
        return;
    }
    if (transfer.bytes.empty()) return;
    const bool isUnit =
        transfer.toUnit ? HasInitialSync(transfer.bytes) : BeginsWithFrameHeader(transfer.bytes);
    if (!unit) {
        if (!isUnit) return;
        unit = std::make_unique<Unit>();
        BeginFrames(*unit, transfer.device);
    }
    if (!transfer.toUnit) return AddFromUnit(*unit, transfer);
    frames.push_back({time,
                      Direction::kToUnit,
                      {transfer.bytes.begin(), transfer.bytes.end()},
                      "",
                      transfer.device});
}

// After a bad header, what the unit sends next begins with a header again.
void BusCapture::AddFromUnit(Unit& unit, const BusTransfer& transfer) {
    unit.frames->Add(transfer.bytes);
    if (unit.isBroken) BeginFrames(unit, transfer.device);
}

std::optional<CapturedFrame> BusCapture::Next() {
    if (frames.empty()) return std::nullopt;
    current = std::move(frames.front());
    frames.pop_front();
    return CapturedFrame{current.time, current.direction, current.bytes, current.comment,
                         current.unit};
}

}  // namespace vexahost
