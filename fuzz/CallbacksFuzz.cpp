// What devices and the DAQ send, straight into the read callbacks. Stated: a block that is taken
// arrives as one tunnel packet with the child's id, the next sequence number and the block's bytes,
// one that is refused does not arrive; and what the DAQ sends behind its sync answer arrives byte
// for byte up to its last whole packet, however it is cut into blocks.
#include <algorithm>
#include <array>

#include "Input.h"
#include "Require.h"
#include "daq/DAQIO.h"
#include "mux/TunneledDevices.h"
#include "support/HostPackets.h"
#include "support/QueuedHostLink.h"
#include "support/ScriptedLibraries.h"

namespace {

using namespace vexa;
using namespace vexa::test;

constexpr std::size_t kDaqWindow = 40000;  // what the output buffer holds with room to spare

enum Child : std::uint32_t { kStream = 1, kHid = 2, kGone = 3 };

void* ContextOf(std::uint32_t id) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(id));  // NOLINT
}

class Children {
  public:
    Children() {
        REQUIRE(HostVEXMuxController_Init(children));
        MuxChild child;
        for (const auto id : {kStream, kHid}) {
            child.id = id;
            REQUIRE(children.Add(child));
        }
    }

    void Send(std::uint32_t id, const Bytes& block, QueuedHostLink& link) {
        const auto count = static_cast<std::int32_t>(block.size());
        const bool isHid = id == kHid;
        armed = armed || (isHid && count > 0 && (block[0] & 0xC0U) != 0 && (count == 8 || !warned));
        warned = warned || (isHid && count != 8);
        const bool taken = (isHid ? TunneledHIDDeviceReadCallback : TunneledDeviceReadCallback)(
                               block.data(), count, ContextOf(id)) == 0;
        const bool fits = isHid ? count == 8 : count < 246;
        REQUIRE(taken == (fits && id != kGone));
        const bool arrives = taken && (!isHid || armed);
        const Bytes expected = arrives ? Tunnel(id, block, sequence[id]++) : Bytes{};
        REQUIRE(link.TakeBytes() == expected);
    }

  private:
    MuxChildren children;
    std::array<std::uint8_t, 4> sequence{};
    bool armed = false;
    bool warned = false;
};

// What arrives of the DAQ's `bytes`: whole packets. One whose length byte is below its header's
// size takes up a header and goes as the bytes that it claims to have.
Bytes Forwarded(const Bytes& bytes) {
    Bytes forwarded;
    for (auto at = bytes.begin(); bytes.end() - at >= 4;) {
        const std::ptrdiff_t length = at[1];
        const std::ptrdiff_t taken = std::max<std::ptrdiff_t>(length, 4);
        if (bytes.end() - at < taken) break;
        forwarded.insert(forwarded.end(), at, at + length);
        at += taken;
    }
    return forwarded;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    QueuedHostLink link;
    Children children;
    ScriptedLibraries::Reset();
    ScriptedLibraries::Get().attached = {{5, "board"}};
    ScriptedLibraries::Get().daqAnswer = DaqSyncAnswer();
    const std::uint32_t library = 1;
    DAQIO daq{library};
    REQUIRE(daq.Open());
    Bytes fromDaq;
    Bytes arrived;
    while (!input.IsEmpty() && fromDaq.size() < kDaqWindow) {
        const std::uint8_t what = input.Byte();
        const Bytes block = input.Bytes(input.Byte() + std::size_t{what} % 64);
        if (what < 128) {
            children.Send(1U + what % 3U, block, link);
            continue;
        }
        DAQIO::ReadCallback(block.data(), static_cast<std::int32_t>(block.size()), &daq);
        fromDaq.insert(fromDaq.end(), block.begin(), block.end());
        const Bytes now = link.TakeBytes();
        arrived.insert(arrived.end(), now.begin(), now.end());
    }
    REQUIRE(arrived == Forwarded(fromDaq));
    daq.Close();
    HostVEXMuxController_Destroy();
    return 0;
}
