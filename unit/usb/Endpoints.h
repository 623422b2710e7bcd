// The bulk endpoints of the gadget: bytes from the host and to it, and what the controller says
// about the cable. Asynchronous throughout; nothing here waits.
#pragma once

#include <linux/aio_abi.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "testkit/Descriptor.h"

namespace vexa::usb {

// Which events of the controller mean that the cable is out. Every controller reports that a host
// has configured the gadget and that it no longer does. On some, pulling the cable shows as a
// suspend and nothing more; on others a suspend only saves power.
enum class CableRule { kConfigured, kSuspend };

struct Counters {
    std::uint64_t fromHost = 0;   // bytes
    std::uint64_t toHost = 0;     // bytes
    std::uint64_t hostWaits = 0;  // times that the host had to wait because nobody read the node
    std::uint64_t dropped = 0;    // bytes from a host that left before the node's reader took them
};

// One thread at a time.
class Endpoints {
  public:
    // At most so much is sent in one piece.
    static constexpr std::size_t kMaxSend = 65536;

    struct Events {
        std::function<void()> received;         // bytes from the host are there
        std::function<void(long result)> sent;  // the bytes sent, or a negative errno
        std::function<void()> begunAnew;        // a host has come, perhaps without an absence seen
        std::function<void()> cableChanged;     // IsCableIn has changed
    };

    // Writes the descriptors to the FunctionFS instance at `folder` and opens its endpoints.
    // `events` are called by the two functions below. Throws SetupError.
    Endpoints(const std::filesystem::path& folder, const std::string& interfaceName, CableRule rule,
              Events events);
    ~Endpoints();
    Endpoints(const Endpoints&) = delete;
    Endpoints& operator=(const Endpoints&) = delete;

    // To be called when the descriptor has something to read: the controller's events, and the end
    // of transfers.
    [[nodiscard]] int ControlDescriptor() const { return control.Get(); }
    void OnControl();
    [[nodiscard]] int TransferDescriptor() const { return transferEnded.Get(); }
    void OnTransfers();

    [[nodiscard]] bool IsCableIn() const {
        return configured && !(rule == CableRule::kSuspend && suspended);
    }

    // How many bytes of the host wait, and the oldest of them, at most as many as fit. When there
    // is room again the host goes on.
    [[nodiscard]] std::size_t Held() const { return written - taken; }
    std::size_t Take(std::span<std::uint8_t> out);

    // Starts to send 1 to kMaxSend bytes, of which a copy is made; Events::sent reports the end.
    // Only with the cable in, and one at a time.
    void Send(std::span<const std::uint8_t> bytes);
    // Ends a Send early: what the host has not taken is not sent. Events::sent reports how many
    // whole pieces were, or `error` if none was; of the piece under way the kernel does not tell.
    void CancelSend(int error);
    [[nodiscard]] bool IsSending() const { return sending; }

    [[nodiscard]] const Counters& Count() const { return counters; }

  private:
    struct Transfer {
        iocb block{};
        bool inFlight = false;
        unsigned configuration = 0;  // the one it was submitted under
    };

    // The operating system's context of asynchronous transfers.
    struct Context {
        Context();
        ~Context();
        Context(const Context&) = delete;
        Context& operator=(const Context&) = delete;
        aio_context_t id = 0;
    };

    // Large sends go out in pieces that any controller's driver can allocate.
    static constexpr std::size_t kPiece = 16384;
    static constexpr std::size_t kPieces = kMaxSend / kPiece;
    // An empty packet ends a payload of whole packets. That of the send before can still be under
    // way, but no older one.
    static constexpr std::size_t kEmpties = 2;
    // The packets of the host that can be under way at once. One transfer each: a longer one would
    // not complete on a transfer of whole packets.
    static constexpr std::size_t kReceives = 32;
    static constexpr std::size_t kMaxPacket = 1024;
    static constexpr std::size_t kBuffer = 65536;

    bool Submit(Transfer& transfer, int endpoint, unsigned operation, std::uint8_t* data,
                std::size_t size, std::uint64_t number);
    void Receive();
    void OnReceived(std::size_t number, long result);
    void OnSent(std::size_t number, long result);
    void OnConfigured();
    void ReportCable(bool before);

    const CableRule rule;
    const Events events;
    testkit::Descriptor control;
    testkit::Descriptor out;  // from the host
    testkit::Descriptor in;   // to the host
    testkit::Descriptor transferEnded;

    unsigned configuration = 0;  // counts the times that a host has configured the gadget
    bool configured = false;
    bool suspended = false;
    std::size_t packetSize = kMaxPacket;  // at the bus's present speed
    Counters counters;

    // From the host. A transfer that failed is not repeated before a host configures the gadget
    // anew.
    std::array<Transfer, kReceives> receives;
    std::vector<std::uint8_t> packets;  // kMaxPacket for each of receives
    std::size_t receiving = 0;          // how many are in flight
    bool receiveFailed = false;
    bool hostWaits = false;
    std::vector<std::uint8_t> buffer;  // a ring
    std::size_t written = 0;           // bytes ever put into it, and ever taken out
    std::size_t taken = 0;

    // To the host.
    std::array<Transfer, kPieces + kEmpties> sends;
    std::vector<std::uint8_t> outgoing;
    std::size_t piecesLeft = 0;
    bool sending = false;
    std::size_t sent = 0;
    int sendError = 0;

    // Its end waits for the transfers, which use the buffers above.
    Context context;
};

}  // namespace vexa::usb
