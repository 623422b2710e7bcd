// The pcapng file format, as far as recordings of the link use it. All numbers are in the byte
// order of the machine that wrote the section; here little-endian is written and both are read.
//
//   Every block                       Enhanced packet block, the body
//  +--------------+--------------+   +-----------+-----------+----------+----------+--------+
//  | type, 4      | length, 4    |   | interface | time high | time low | captured | length |
//  +--------------+--------------+   +-----------+-----------+----------+----------+--------+
//  | body, padded to 4 bytes     |   | data, padded to 4 bytes                              |
//  +-----------------------------+   +------------------------------------------------------+
//  | length again |                  | options: code 2, length 2, value padded to 4 bytes   |
//  +--------------+                  +------------------------------------------------------+
#include <fcntl.h>
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

#include "vexahost/Recording.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost {

namespace {

constexpr std::uint32_t kSectionHeaderBlock = 0x0A0D0D0A;
constexpr std::uint32_t kInterfaceBlock = 1;
constexpr std::uint32_t kEnhancedPacketBlock = 6;

constexpr std::uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr std::uint16_t kMajorVersion = 1;
constexpr std::size_t kBlockOverhead = 12;      // type and both lengths
constexpr std::size_t kSectionHeaderSize = 28;  // of a block without options
constexpr std::size_t kInterfaceBodySize = 8;   // link type, reserved, snap length
constexpr std::size_t kPacketBodySize = 20;     // up to the data
constexpr std::size_t kOptionHeaderSize = 4;

constexpr std::uint16_t kEndOfOptions = 0;
constexpr std::uint16_t kCommentOption = 1;
constexpr std::uint16_t kInterfaceNameOption = 2;
constexpr std::uint16_t kTimeResolutionOption = 9;
constexpr std::uint8_t kDefaultTimeResolution = 6;  // microseconds
constexpr std::uint8_t kNanoseconds = 9;
constexpr std::uint8_t kBinaryResolution = 0x80;  // this bit: a power of 2, not of 10
constexpr std::uint16_t kPacketFlagsOption = 2;
constexpr std::uint32_t kDirectionMask = 3;
constexpr std::uint32_t kInbound = 1;  // seen from the host: from the unit
constexpr std::uint32_t kOutbound = 2;

// Set aside for private use; the dissector registers for it.
constexpr std::uint16_t kLinkType = 147;

std::size_t Padded(std::size_t size) { return (size + 3) & ~std::size_t{3}; }

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
    constexpr std::size_t kMostLength = 1 << 26;  // no frame of ours comes near it
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

std::optional<CapturedFrame> PcapngReader::ReadPacket(std::span<const std::uint8_t> body) {
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
        if (block->type == kInterfaceBlock) ReadInterface(block->body);
        if (block->type == kEnhancedPacketBlock) return ReadPacket(block->body);
    }
    return std::nullopt;
}

namespace {

std::span<const std::uint8_t> TextBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

PcapngWriter::PcapngWriter(std::string path_, std::FILE* file_)
    : path(std::move(path_)), file(file_) {}

Expected<PcapngWriter> PcapngWriter::Create(const std::string& path) {
    const bool isNamed = path != "-";
    constexpr int kReadableByAll = 0666;  // less the process's mask
    const int opened = isNamed ? open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kReadableByAll)
                               : dup(STDOUT_FILENO);
    std::FILE* const file = opened < 0 ? nullptr : fdopen(opened, "wb");
    if (file == nullptr) {
        return Error{ErrorKind::kInvalidArgument,
                     "cannot write " + path + ": " + std::strerror(errno)};
    }
    PcapngWriter writer(path, file);
    writer.BeginBlock(kSectionHeaderBlock);
    writer.Append32(kByteOrderMagic);
    writer.Append16(kMajorVersion);
    writer.Append16(0);
    writer.Append32(0xFFFFFFFF);  // the section's length, 64 bits: not known
    writer.Append32(0xFFFFFFFF);
    writer.EndBlock();
    writer.BeginBlock(kInterfaceBlock);
    writer.Append16(kLinkType);
    writer.Append16(0);
    writer.Append32(0);  // frames are never cut
    writer.AppendOption(kInterfaceNameOption, TextBytes("host link"));
    writer.AppendOption(kTimeResolutionOption, std::array{kNanoseconds});
    writer.AppendOption(kEndOfOptions, {});
    writer.EndBlock();
    struct stat status {};
    writer.replaces =
        isNamed && fstat(opened, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
    if (writer.replaces) return writer;
    if (const auto written = writer.Write(); !written) return written.error();
    return writer;
}

Expected<Done> PcapngWriter::Add(const CapturedFrame& frame) {
    const auto time = static_cast<std::uint64_t>(frame.time.count());
    BeginBlock(kEnhancedPacketBlock);
    Append32(0);  // the one interface
    Append32(time >> 32U);
    Append32(time & 0xFFFFFFFFU);
    Append32(frame.bytes.size());
    Append32(frame.bytes.size());
    AppendPadded(frame.bytes);
    if (!frame.comment.empty()) AppendOption(kCommentOption, TextBytes(frame.comment));
    std::array<std::uint8_t, 4> flags{};
    vexa::StoreLe32(flags, 0, frame.direction == Direction::kFromUnit ? kInbound : kOutbound);
    AppendOption(kPacketFlagsOption, flags);
    AppendOption(kEndOfOptions, {});
    EndBlock();
    return Write();
}

Expected<Done> PcapngWriter::Write() {
    const bool isEmptied = !std::exchange(replaces, false) || ftruncate(fileno(file.get()), 0) == 0;
    const bool written =
        isEmptied && std::fwrite(pending.data(), 1, pending.size(), file.get()) == pending.size() &&
        std::fflush(file.get()) == 0;
    pending.clear();
    if (written) return Done{};
    return Error{ErrorKind::kInvalidArgument, "cannot write " + path + ": " + std::strerror(errno)};
}

void PcapngWriter::Append16(std::uint64_t value) {
    pending.push_back(static_cast<std::uint8_t>(value));
    pending.push_back(static_cast<std::uint8_t>(value >> 8U));
}

void PcapngWriter::Append32(std::uint64_t value) {
    Append16(value);
    Append16(value >> 16U);
}

void PcapngWriter::AppendPadded(std::span<const std::uint8_t> bytes) {
    pending.insert(pending.end(), bytes.begin(), bytes.end());
    pending.resize(pending.size() + Padded(bytes.size()) - bytes.size());
}

void PcapngWriter::AppendOption(std::uint16_t code, std::span<const std::uint8_t> value) {
    Append16(code);
    Append16(value.size());
    AppendPadded(value);
}

void PcapngWriter::BeginBlock(std::uint32_t type) {
    blockStart = pending.size();
    Append32(type);
    Append32(0);
}

void PcapngWriter::EndBlock() {
    const std::size_t length = pending.size() - blockStart + sizeof(std::uint32_t);
    Append32(length);
    vexa::StoreLe32(pending, blockStart + sizeof(std::uint32_t),
                    static_cast<std::uint32_t>(length));
}

}  // namespace vexahost
