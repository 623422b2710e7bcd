#include "capture/PcapngReader.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "capture/PcapngFormat.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost {

namespace {

using namespace pcapng;

// A count of the interface's time units in nanoseconds, without overflow on the way.
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

Expected<std::vector<std::uint8_t>> ReadWholeFile(const std::string& path) {
    const auto failure = [&path](int error) {
        return Error{ErrorKind::kInvalidArgument,
                     "cannot read " + path + ": " + std::strerror(error)};
    };
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rbe"),
                                                               &std::fclose);
    if (!file) return failure(errno);
    std::vector<std::uint8_t> bytes;
    constexpr std::size_t kPiece = 1 << 16;
    for (std::size_t got = kPiece; got == kPiece;) {
        const std::size_t before = bytes.size();
        bytes.resize(before + kPiece);
        got = std::fread(bytes.data() + before, 1, kPiece, file.get());
        bytes.resize(before + got);
    }
    if (std::ferror(file.get()) != 0) return failure(errno);
    return bytes;
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
    fault = what + ", at byte " + std::to_string(blockStart) + " of " + std::to_string(size);
    rest = {};
}

// The byte order of the section that begins at the front of `rest`.
bool PcapngReader::ReadByteOrder() {
    constexpr std::size_t kMagicOffset = 8;
    if (rest.size() < kSectionHeaderSize) return false;
    bigEndian = false;
    if (Load32(rest.data() + kMagicOffset) != kByteOrderMagic) bigEndian = true;
    return Load32(rest.data() + kMagicOffset) == kByteOrderMagic;
}

std::optional<PcapngReader::Block> PcapngReader::NextBlock() {
    if (rest.empty()) {
        if (size == 0) Fail("the file is empty");
        return std::nullopt;
    }
    blockStart = size - rest.size();
    constexpr std::size_t kHeaderSize = 8;
    if (rest.size() < kHeaderSize) {
        Fail(inSection ? "the capture breaks off" : "this is no pcapng capture");
        return std::nullopt;
    }
    Block block;
    block.type = Load32(rest.data());
    // The number of a section header reads the same in either order.
    if (block.type == kSectionHeaderBlock) {
        if (!ReadByteOrder()) {
            Fail(inSection ? "the capture breaks off" : "this is no pcapng capture");
            return std::nullopt;
        }
        interfaces.clear();
        inSection = true;
    } else if (!inSection) {
        Fail("this is no pcapng capture");
        return std::nullopt;
    }
    const std::size_t length = Load32(rest.data() + sizeof block.type);
    if (length < kBlockOverhead || length % sizeof block.type != 0) {
        Fail("a block of " + std::to_string(length) + " bytes cannot be");
        return std::nullopt;
    }
    if (length > rest.size()) {
        Fail("the capture breaks off");
        return std::nullopt;
    }
    block.body = rest.subspan(kHeaderSize, length - kBlockOverhead);
    rest = rest.subspan(length);
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

void PcapngReader::TakeInterface(std::span<const std::uint8_t> body) {
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

std::optional<CapturedFrame> PcapngReader::TakePacket(std::span<const std::uint8_t> body) {
    if (body.size() < kPacketBodySize) {
        Fail("a packet block is too short");
        return std::nullopt;
    }
    const std::uint32_t number = Load32(body.data());
    const std::uint64_t time =
        static_cast<std::uint64_t>(Load32(body.data() + 4)) << 32U | Load32(body.data() + 8);
    const std::size_t captured = Load32(body.data() + 12);
    const auto data = body.subspan(kPacketBodySize);
    if (captured > data.size() || Padded(captured) > data.size()) {
        Fail("the data of a packet block does not fit into it");
        return std::nullopt;
    }
    if (number >= interfaces.size()) {
        Fail("a packet block names an interface that is not there");
        return std::nullopt;
    }
    const Interface& interface = interfaces[number];
    if (interface.linkType != kLinkType) {
        Fail("this is a capture of something else (link type " +
             std::to_string(interface.linkType) + ", not " + std::to_string(kLinkType) + ")");
        return std::nullopt;
    }
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
    if (!good) {
        Fail("the options of a packet block do not fit into it");
        return std::nullopt;
    }
    return frame;
}

std::optional<CapturedFrame> PcapngReader::Next() {
    while (const auto block = NextBlock()) {
        if (block->type == kInterfaceBlock) TakeInterface(block->body);
        if (block->type == kEnhancedPacketBlock) return TakePacket(block->body);
    }
    return std::nullopt;
}

}  // namespace vexahost
