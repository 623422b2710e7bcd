#include "daq/DAQIO.h"

#include <algorithm>
#include <cstdio>

#include "VEXA.h"
#include "devices/HostLink.h"
#include "foundation/GUtils.h"
#include "foundation/HexDump.h"
#include "protocol/InitialSync.h"

namespace vexa {

namespace {

constexpr char kModule[] = "DAQIO";
constexpr int kNoSyncLine = 110;
constexpr int kSyncedLine = 113;
constexpr int kResetSucceededLine = 141;
constexpr int kResetFailedLine = 144;
constexpr int kGoodHeaderLine = 239;
constexpr int kChecksumErrorLine = 245;

constexpr std::uint32_t kDeviceType = 5;
constexpr std::int32_t kSearchMode = 2;
constexpr std::int32_t kStreamMode = 4;
constexpr std::int32_t kPlainOpenMode = 1;
constexpr std::size_t kNameSize = 220;

constexpr std::uint8_t kInitSequence = 77;
constexpr std::uint32_t kSyncTimeoutMs = 500;
constexpr std::uint32_t kSyncPollMs = 10;
constexpr std::size_t kMaxChunk = 253;
constexpr std::uint32_t kMaxLoggedErrors = 10;

void TraceHeader(const char* text, std::span<const std::uint8_t, 8> header, int line) {
    std::array<char, 100> message{};
    std::snprintf(message.data(), message.size(), "%s %02x %02x %02x %02x %02x %02x %02x %02x",
                  text, header[0], header[1], header[2], header[3], header[4], header[5], header[6],
                  header[7]);
    Trace(kTraceLevel, message.data(), kModule, line);
}

}  // namespace

bool DAQIO::Open() {
    if (IsOpen()) return true;
    ClearRecord();
    if (OpenStream() && SendInitialSync() && WaitForSync()) return true;
    if (IsOpen()) {
        VEXA_Device_Stream_Close(stream);
        stream = 0;
    }
    return false;
}

void DAQIO::ClearRecord() {
    const MutexLock lock(recordMutex);
    packet.fill(0);
    syncRingStorage.fill(0);
    lastGoodHeader.fill(0);
    lastGoodWord = 0;
    synced = 0;
    assembledCount = 0;
    errorCount = 0;
    errorFlag = 0;
    syncRing.Init(syncRingStorage.data(), kSyncRingSize);
    initSequence = kInitSequence;
}

bool DAQIO::OpenStream() {
    std::array<char, kNameSize> name{};
    std::uint32_t word = 0;
    std::uint32_t count = 0;
    std::uint32_t signature = 0;
    VEXA_SearchForDevices(library, kDeviceType, kSearchMode, 0, &word);
    const std::uint32_t snapshot =
        VEXA_OpenDeviceListSnapshot(library, kDeviceType, &count, &signature);
    const std::int32_t status =
        VEXA_DeviceListSnapshot_GetNthEntry(snapshot, 0, name.data(), kNameSize, &word);
    VEXA_CloseDeviceListSnapshot(snapshot);
    if (status != 0) return false;
    stream = VEXA_Device_Stream_Open(library, name.data(), ReadCallback, kStreamMode, this);
    return stream != 0;
}

bool DAQIO::SendInitialSync() {
    std::array<std::uint8_t, kInitialSyncSize> request{};
    BuildInitialSync(request, kInitSequence);
    return VEXA_Device_Stream_Write(stream, request.data(), kInitialSyncSize) == 0;
}

bool DAQIO::WaitForSync() {
    const std::uint32_t start = OSGetMilliseconds();
    while (synced == 0 && OSGetMilliseconds() - start <= kSyncTimeoutMs) OSSleep(kSyncPollMs);
    if (synced == 0) {
        Trace(kTraceLevel, "DAQ failed to reply to initial sync VEXA_CMD_ID_INIT.", kModule,
              kNoSyncLine);
        return false;
    }
    Trace(kTraceLevel, "DAQ successfully replied to initial sync VEXA_CMD_ID_INIT.", kModule,
          kSyncedLine);
    return true;
}

int DAQIO::Write(const std::uint8_t* data, int length) {
    if (!IsOpen() || VEXA_Device_Stream_Write(stream, data, length) != 0) return 0;
    return length;
}

bool DAQIO::Close() {
    if (!IsOpen()) return true;
    std::array<char, kNameSize> name{};
    VEXA_Device_GetOpenDeviceName(stream, name.data(), kNameSize);
    VEXA_Device_Stream_Close(stream);
    stream = 0;
    ResetBoard(name.data());
    return true;
}

void DAQIO::ResetBoard(const char* name) {
    const std::uint32_t device = VEXA_Device_Open(library, name, kPlainOpenMode);
    if (device == 0) {
        Trace(kTraceLevel, "Init during DAQ close failed.", kModule, kResetFailedLine);
        return;
    }
    VEXA_Device_Close(device);
    Trace(kTraceLevel, "Init during DAQ close succeeded.", kModule, kResetSucceededLine);
}

std::int32_t DAQIO::ReadCallback(const std::uint8_t* data, std::int32_t count,
                                 void* record) noexcept {
    if (record == nullptr || data == nullptr || count <= 0) return 0;
    static_cast<DAQIO*>(record)->Receive({data, static_cast<std::size_t>(count)});
    return 0;
}

void DAQIO::Receive(std::span<const std::uint8_t> data) {
    const MutexLock lock(recordMutex);
    while (!data.empty()) {
        const auto chunk = data.first(std::min(data.size(), kMaxChunk));
        const std::size_t used = synced != 0 ? AssemblePacket(chunk) : ScanForSync(chunk);
        data = data.subspan(used);
    }
}

// Returns how many bytes it used: those up to the end of the sync answer, else all.
std::size_t DAQIO::ScanForSync(std::span<const std::uint8_t> chunk) {
    for (std::size_t i = 0; i < chunk.size(); ++i) {
        syncRing.Put(chunk[i]);
        if (chunk[i] != kInitialSyncReplySignature.back() || !RingEndsInSyncAnswer()) continue;
        assembledCount = 0;
        synced = 1;
        return i + 1;
    }
    return chunk.size();
}

bool DAQIO::RingEndsInSyncAnswer() const {
    std::array<std::uint8_t, kInitialSyncReplySize> answer{};
    if (!syncRing.PeekNewest(answer.data(), kInitialSyncReplySize)) return false;
    return IsInitialSyncReply(answer) && answer[kInitialSyncReplySequenceOffset] == initSequence;
}

// Returns how many bytes it used: those up to the end of the packet, else all.
std::size_t DAQIO::AssemblePacket(std::span<const std::uint8_t> chunk) {
    for (std::size_t i = 0; i < chunk.size(); ++i) {
        packet[assembledCount++] = chunk[i];
        if (assembledCount < kPacketHeaderSize || assembledCount < packet[kLengthOffset]) continue;
        HostLink_Write(packet.data(), packet[kLengthOffset]);
        // The log shows 8 bytes of each packet; past the end of a shorter one they are zero.
        std::fill(packet.begin() + assembledCount, packet.end(), std::uint8_t{0});
        if (errorCount < kMaxLoggedErrors) CheckPacket();
        assembledCount = 0;
        return i + 1;
    }
    return chunk.size();
}

void DAQIO::CheckPacket() {
    const std::span<const std::uint8_t, kHeaderBytes> header(packet.data(), kHeaderBytes);
    if (HasRightChecksum(packet)) {
        std::ranges::copy(header, lastGoodHeader.begin());
        lastGoodWord =
            static_cast<std::uint16_t>(packet[kHeaderBytes] | packet[kHeaderBytes + 1] << 8U);
        return;
    }
    if (errorCount == 0) TraceHeader("DAQ->Host good blob:", lastGoodHeader, kGoodHeaderLine);
    TraceHeader("DAQ->Host blob checksum err:", header, kChecksumErrorLine);
    ++errorCount;
    errorFlag = 1;
}

void DAQIO::DumpInput(const std::uint8_t* data, int count, const char* label) {
    HexDump("DAQ Input", label, data, count);
}

void DAQIO::DumpOutput(const std::uint8_t* data, int count, const char* label) {
    HexDump("DAQ Output", label, data, count);
}

}  // namespace vexa
