#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "lib/recording/Pcapng.h"
#include "vexahost/Recording.h"
#include "vexahost/protocol/Packet.h"

namespace vexahost {

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
