// Reads pcapng, and the older pcap, which captures of the USB bus may be in.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "lib/recording/BusCapture.h"
#include "lib/recording/Pcapng.h"
#include "vexahost/Recording.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost {

namespace {

constexpr std::size_t kMostLength = 1 << 26;  // no frame comes near it

// Converts a count of the interface's time units to nanoseconds, without overflow in between.
CaptureTime TimeOf(std::uint64_t units, std::uint8_t resolution) {
    constexpr std::uint64_t kPerSecond = 1'000'000'000;
    std::uint64_t unitsPerSecond = 1;
    if ((resolution & kBinaryResolution) != 0) {
        const unsigned power = resolution & 0x7FU;
        if (power >= 64) return {};
        unitsPerSecond <<= power;
    } else {
        if (resolution > 19) return {};  // 10^19 is the largest power that 64 bits hold
        for (unsigned i = 0; i < resolution; ++i) unitsPerSecond *= 10;
    }
    const double fraction =
        static_cast<double>(units % unitsPerSecond) / static_cast<double>(unitsPerSecond);
    const std::uint64_t nanoseconds =
        unitsPerSecond <= kPerSecond && kPerSecond % unitsPerSecond == 0
            ? units % unitsPerSecond * (kPerSecond / unitsPerSecond)
            : static_cast<std::uint64_t>(fraction * static_cast<double>(kPerSecond));
    return CaptureTime(
        static_cast<std::int64_t>(units / unitsPerSecond * kPerSecond + nanoseconds));
}

}  // namespace

PcapngReader::PcapngReader() : bus(std::make_shared<BusCapture>()) {}

PcapngReader::PcapngReader(std::span<const std::uint8_t> capture) : PcapngReader() {
    rest = capture;
}

Expected<PcapngReader> PcapngReader::Open(const std::string& path) {
    PcapngReader reader;
    reader.file.reset(path == "-" ? fdopen(dup(STDIN_FILENO), "rb")
                                  : std::fopen(path.c_str(), "rbe"));
    // A directory can be opened, but not read.
    struct stat status {};
    const bool isOpen = reader.file && fstat(fileno(reader.file.get()), &status) == 0;
    if (!isOpen || S_ISDIR(status.st_mode)) {
        return Error{ErrorKind::kInvalidArgument,
                     "cannot read " + path + ": " + std::strerror(isOpen ? EISDIR : errno)};
    }
    return reader;
}

bool PcapngReader::Need(std::size_t count) {
    if (rest.size() >= count) return true;
    if (!file) return false;
    const std::size_t had = rest.size();
    if (had > 0) std::memmove(buffer.data(), rest.data(), had);
    buffer.resize(std::max(buffer.size(), count));
    const std::size_t got = std::fread(buffer.data() + had, 1, count - had, file.get());
    rest = std::span(buffer).first(had + got);
    return rest.size() == count;
}

std::uint16_t PcapngReader::Load16(const std::uint8_t* bytes) const {
    const unsigned first = bytes[0];
    const unsigned second = bytes[1];
    return static_cast<std::uint16_t>(bigEndian ? first << 8U | second : second << 8U | first);
}

std::uint32_t PcapngReader::Load32(const std::uint8_t* bytes) const {
    const std::uint32_t value = vexa::LoadLe32(std::span<const std::uint8_t, 4>(bytes, 4));
    return bigEndian ? __builtin_bswap32(value) : value;
}

void PcapngReader::Fail(const std::string& what) {
    fault = what + ", at byte " + std::to_string(blockStart);
    rest = {};
    file.reset();
}

// The byte order of the section that begins at the front of `rest`.
bool PcapngReader::ReadByteOrder() {
    constexpr std::size_t kMagicOffset = 8;
    if (!Need(kSectionHeaderSize)) return false;
    bigEndian = false;
    if (Load32(rest.data() + kMagicOffset) != kByteOrderMagic) bigEndian = true;
    return Load32(rest.data() + kMagicOffset) == kByteOrderMagic;
}

std::optional<PcapngReader::Block> PcapngReader::NextBlock() {
    constexpr std::size_t kHeaderSize = 8;
    const auto failed = [this](const std::string& what) {
        Fail(what);
        return std::nullopt;
    };
    const char* const brokenOff =
        inSection ? "the capture breaks off" : "this is no pcapng capture";
    blockStart = nextBlock;
    if (!Need(kHeaderSize)) {
        if (!rest.empty()) return failed(brokenOff);
        if (file && std::ferror(file.get()) != 0) return failed(std::strerror(errno));
        if (blockStart == 0) return failed("the file is empty");
        return std::nullopt;
    }
    Block block;
    block.type = Load32(rest.data());
    // The type of a section header reads the same in either byte order.
    if (block.type == kSectionHeaderBlock) {
        if (!ReadByteOrder()) return failed(brokenOff);
        interfaces.clear();
        inSection = true;
    } else if (!inSection) {
        return failed("this is no pcapng capture");
    }
    const std::size_t length = Load32(rest.data() + sizeof block.type);
    if (length < kBlockOverhead || length % sizeof block.type != 0 || length > kMostLength) {
        return failed("a block of " + std::to_string(length) + " bytes cannot be");
    }
    if (!Need(length)) return failed("the capture breaks off");
    if (Load32(rest.data() + length - sizeof block.type) != length) {
        return failed("the two lengths of a block differ");
    }
    block.body = rest.subspan(kHeaderSize, length - kBlockOverhead);
    if (block.type == kSectionHeaderBlock && Load16(block.body.data() + 4) != kMajorVersion) {
        return failed("this is a capture of another pcapng version");
    }
    rest = rest.subspan(length);
    nextBlock += length;
    return block;
}

template <typename Visit>
bool PcapngReader::EachOption(std::span<const std::uint8_t> options, Visit visit) const {
    while (options.size() >= kOptionHeaderSize) {
        const std::uint16_t code = Load16(options.data());
        const std::size_t length = Load16(options.data() + sizeof code);
        if (code == kEndOfOptions) return true;
        if (Padded(length) > options.size() - kOptionHeaderSize) return false;
        visit(code, options.subspan(kOptionHeaderSize, length));
        options = options.subspan(kOptionHeaderSize + Padded(length));
    }
    return options.empty();
}

void PcapngReader::ReadInterface(std::span<const std::uint8_t> body) {
    if (body.size() < kInterfaceBodySize) return Fail("an interface block is too short");
    Interface interface { Load16(body.data()), kDefaultTimeResolution };
    const bool good = EachOption(body.subspan(kInterfaceBodySize), [&](auto code, auto value) {
        if (code == kTimeResolutionOption && !value.empty()) {
            interface.timeResolution = value.front();
        }
    });
    if (!good) return Fail("the options of an interface block do not fit into it");
    interfaces.push_back(interface);
}

void PcapngReader::ReadPacket(std::span<const std::uint8_t> body) {
    if (body.size() < kPacketBodySize) {
        return Fail("a packet block is too short");
    }
    const std::uint32_t number = Load32(body.data());
    const std::uint64_t time =
        static_cast<std::uint64_t>(Load32(body.data() + 4)) << 32U | Load32(body.data() + 8);
    const std::size_t captured = Load32(body.data() + 12);
    const auto data = body.subspan(kPacketBodySize);
    if (captured > data.size() || Padded(captured) > data.size()) {
        return Fail("the data of a packet block does not fit into it");
    }
    if (number >= interfaces.size()) {
        return Fail("a packet block names an interface that is not there");
    }
    const Interface& interface = interfaces[number];
    CapturedFrame frame;
    frame.time = TimeOf(time, interface.timeResolution);
    frame.bytes = data.first(captured);
    const bool good = EachOption(data.subspan(Padded(captured)), [&](auto code, auto value) {
        if (code == kCommentOption) {
            frame.comment.assign(value.begin(), value.end());
        } else if (code == kPacketFlagsOption && value.size() == sizeof(std::uint32_t)) {
            const bool inbound = (Load32(value.data()) & kDirectionMask) == kInbound;
            frame.direction = inbound ? Direction::kFromUnit : Direction::kToUnit;
        }
    });
    if (!good) return Fail("the options of a packet block do not fit into it");
    Take(interface.linkType, std::move(frame));
}

void PcapngReader::Take(std::uint16_t linkType, CapturedFrame frame) {
    if (linkType == kLinkType) {
        own = std::move(frame);
        return;
    }
    const auto header = static_cast<BusHeader>(linkType);
    if (header != BusHeader::kUsbmonShort && header != BusHeader::kUsbmonLong &&
        header != BusHeader::kUsbPcap) {
        return Fail("this is a capture of something else (link type " + std::to_string(linkType) +
                    ", not " + std::to_string(kLinkType) + " or that of a USB bus)");
    }
    if (const auto transfer = ReadBusTransfer(header, bigEndian, frame.bytes)) {
        bus->Add(frame.time, *transfer);
    }
}

// The older format: a header with magic number, versions, three fields that are not used, and link
// type; then records with seconds, fraction, captured length and length.
bool PcapngReader::ReadPcapHeader() {
    constexpr std::size_t kHeaderSize = 24;
    constexpr std::uint32_t kMicroMagic = 0xA1B2C3D4;
    constexpr std::uint32_t kNanoMagic = 0xA1B23C4D;
    if (!Need(sizeof kMicroMagic)) return false;
    for (const bool isBig : {false, true}) {
        bigEndian = isBig;
        const std::uint32_t magic = Load32(rest.data());
        if (magic != kMicroMagic && magic != kNanoMagic) continue;
        if (!Need(kHeaderSize)) return false;
        // The upper half of the field is for flags.
        pcap = Interface{static_cast<std::uint16_t>(Load32(rest.data() + 20)),
                         magic == kNanoMagic ? kNanoseconds : kDefaultTimeResolution};
        rest = rest.subspan(kHeaderSize);
        nextBlock = kHeaderSize;
        return true;
    }
    return false;
}

bool PcapngReader::ReadPcapRecord() {
    constexpr std::size_t kHeaderSize = 16;
    blockStart = nextBlock;
    if (!Need(kHeaderSize)) {
        if (!rest.empty()) Fail("the capture breaks off");
        return false;
    }
    const std::size_t captured = Load32(rest.data() + 8);
    if (captured > kMostLength) {
        Fail("a record of " + std::to_string(captured) + " bytes cannot be");
        return false;
    }
    if (!Need(kHeaderSize + captured)) {
        Fail("the capture breaks off");
        return false;
    }
    const std::chrono::seconds whole(Load32(rest.data()));
    CapturedFrame frame;
    frame.time = whole + TimeOf(Load32(rest.data() + 4), pcap->timeResolution);
    frame.bytes = rest.subspan(kHeaderSize, captured);
    Take(pcap->linkType, std::move(frame));
    if (!fault.empty()) return false;
    rest = rest.subspan(kHeaderSize + captured);
    nextBlock += kHeaderSize + captured;
    return true;
}

bool PcapngReader::ReadRecord() {
    if (pcap || (nextBlock == 0 && ReadPcapHeader())) return ReadPcapRecord();
    const auto block = NextBlock();
    if (!block) return false;
    if (block->type == kInterfaceBlock) ReadInterface(block->body);
    if (block->type == kEnhancedPacketBlock) ReadPacket(block->body);
    return fault.empty();
}

std::optional<CapturedFrame> PcapngReader::Next() {
    own.reset();
    do {
        if (auto frame = bus->Next()) return frame;
        if (!ReadRecord()) return std::nullopt;
    } while (!own);
    return own;
}

}  // namespace vexahost
