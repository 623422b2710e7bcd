#include "usb/Endpoints.h"

#include <fcntl.h>
#include <linux/usb/functionfs.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "usb/Descriptors.h"
#include "usb/Gadget.h"

namespace vexa::usb {

namespace {

// Numbers of transfers in their completions: those of `receives` from 0 on, those of `sends` from
// here.
constexpr std::size_t kFirstSend = 1000;

[[noreturn]] void Fail(const std::string& what) {
    throw SetupError("cannot " + what + ": " + std::strerror(errno));
}

testkit::Descriptor OpenEndpoint(const std::filesystem::path& file) {
    testkit::Descriptor descriptor(open(file.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!descriptor) Fail("open " + file.string());
    return descriptor;
}

void WriteWhole(int descriptor, const std::vector<std::uint8_t>& bytes, const char* what) {
    if (write(descriptor, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        Fail(std::string("write the function's ") + what);
    }
}

}  // namespace

Endpoints::Context::Context() {
    constexpr unsigned kTransfers = 128;
    if (syscall(SYS_io_setup, kTransfers, &id) != 0) Fail("set up asynchronous transfers");
}

Endpoints::Context::~Context() { syscall(SYS_io_destroy, id); }

Endpoints::Endpoints(const std::filesystem::path& folder, const std::string& interfaceName,
                     CableRule rule_, Events events_)
    : rule(rule_),
      events(std::move(events_)),
      control(OpenEndpoint(folder / "ep0")),
      transferEnded(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      packets(kReceives * kMaxPacket),
      buffer(kBuffer),
      outgoing(kMaxSend) {
    if (!transferEnded) Fail("make an event descriptor");
    WriteWhole(control.Get(), FunctionDescriptors(), "descriptors");
    WriteWhole(control.Get(), FunctionStrings(interfaceName), "name");
    out = OpenEndpoint(folder / "ep1");
    in = OpenEndpoint(folder / "ep2");
}

Endpoints::~Endpoints() = default;

bool Endpoints::Submit(Transfer& transfer, int endpoint, unsigned operation, std::uint8_t* data,
                       std::size_t size, std::uint64_t number) {
    transfer.block = {};
    transfer.block.aio_fildes = static_cast<std::uint32_t>(endpoint);
    transfer.block.aio_lio_opcode = static_cast<std::uint16_t>(operation);
    transfer.block.aio_buf = reinterpret_cast<std::uintptr_t>(data);
    transfer.block.aio_nbytes = size;
    transfer.block.aio_flags = IOCB_FLAG_RESFD;
    transfer.block.aio_resfd = static_cast<std::uint32_t>(transferEnded.Get());
    transfer.block.aio_data = number;
    iocb* list[] = {&transfer.block};
    transfer.configuration = configuration;
    transfer.inFlight = syscall(SYS_io_submit, context.id, 1, list) == 1;
    return transfer.inFlight;
}

// --- what the controller says

void Endpoints::OnControl() {
    std::array<usb_functionfs_event, 4> list;
    const ssize_t size = read(control.Get(), list.data(), sizeof list);
    if (size < 0) return;  // it can be readable and have nothing after all
    for (std::size_t i = 0; i < static_cast<std::size_t>(size) / sizeof list[0]; ++i) {
        const usb_functionfs_event& event = list[i];
        const bool before = IsCableIn();
        switch (event.type) {
            case FUNCTIONFS_ENABLE:
                OnConfigured();
                break;
            case FUNCTIONFS_DISABLE:
            case FUNCTIONFS_UNBIND:  // sometimes the only one of the two that is reported
                configured = false;
                break;
            case FUNCTIONFS_SUSPEND:
                suspended = true;
                break;
            case FUNCTIONFS_RESUME:
                suspended = false;
                // Its sends were given up, so that the session cannot go on.
                if (!before && IsCableIn()) events.begunAnew();
                break;
            case FUNCTIONFS_SETUP:
                // There are no requests to this function. An answer in the wrong direction stalls.
                if ((event.u.setup.bRequestType & USB_DIR_IN) != 0) {
                    (void)!read(control.Get(), nullptr, 0);
                } else {
                    (void)!write(control.Get(), nullptr, 0);
                }
                break;
            default:
                break;
        }
        ReportCable(before);
    }
}

void Endpoints::ReportCable(bool before) {
    if (IsCableIn() == before) return;
    if (!IsCableIn() && sending) CancelSend(ESHUTDOWN);
    events.cableChanged();
}

// A host has configured the gadget. That ends what an earlier one had begun, also where its leaving
// was not reported: bytes that it sent are of no use to the new one's session.
void Endpoints::OnConfigured() {
    OnTransfers();
    counters.dropped += Held();
    taken = written;
    ++configuration;
    configured = true;
    suspended = false;
    receiveFailed = false;
    usb_endpoint_descriptor descriptor{};
    if (ioctl(out.Get(), FUNCTIONFS_ENDPOINT_DESC, &descriptor) == 0) {
        packetSize = std::min<std::size_t>(descriptor.wMaxPacketSize, kMaxPacket);
    }
    Receive();
    events.begunAnew();
}

// --- from the host

// As many transfers as there is room for. Without any the controller makes the host wait.
void Endpoints::Receive() {
    if (!configured || receiveFailed) return;
    for (std::size_t i = 0; i < receives.size(); ++i) {
        if (receives[i].inFlight) continue;
        if (Held() + (receiving + 1) * packetSize > buffer.size()) {
            if (receiving == 0 && !std::exchange(hostWaits, true)) ++counters.hostWaits;
            return;
        }
        std::uint8_t* const packet = &packets[i * kMaxPacket];
        if (!Submit(receives[i], out.Get(), IOCB_CMD_PREAD, packet, packetSize, i)) return;
        ++receiving;
        hostWaits = false;
    }
}

void Endpoints::OnReceived(std::size_t number, long result) {
    receives[number].inFlight = false;
    --receiving;
    // The end of a transfer can be reported after a new host has come.
    const bool isPresent = receives[number].configuration == configuration;
    if (result < 0 || !isPresent) {
        if (isPresent) receiveFailed = true;
        if (result > 0) counters.dropped += static_cast<std::uint64_t>(result);
        return;
    }
    const std::uint8_t* const packet = &packets[number * kMaxPacket];
    for (long i = 0; i < result; ++i) buffer[written++ % buffer.size()] = packet[i];
    counters.fromHost += static_cast<std::uint64_t>(result);
}

std::size_t Endpoints::Take(std::span<std::uint8_t> bytes) {
    const std::size_t count = std::min(bytes.size(), Held());
    for (std::size_t i = 0; i < count; ++i) bytes[i] = buffer[taken++ % buffer.size()];
    Receive();
    return count;
}

// --- to the host

void Endpoints::Send(std::span<const std::uint8_t> bytes) {
    std::ranges::copy(bytes, outgoing.begin());
    sending = true;
    sent = 0;
    sendError = 0;
    piecesLeft = 0;
    const std::size_t pieces = (bytes.size() + kPiece - 1) / kPiece;
    for (std::size_t i = 0; i < pieces; ++i) {
        const std::size_t begin = i * kPiece;
        if (!Submit(sends[i], in.Get(), IOCB_CMD_PWRITE, &outgoing[begin],
                    std::min(kPiece, bytes.size() - begin), kFirstSend + i)) {
            sendError = ESHUTDOWN;
            break;
        }
        ++piecesLeft;
    }
    // So that a host which asked for more than this payload gets its answer.
    if (sendError == 0 && bytes.size() % packetSize == 0) {
        const std::size_t empty = sends[kPieces].inFlight ? kPieces + 1 : kPieces;
        Submit(sends[empty], in.Get(), IOCB_CMD_PWRITE, outgoing.data(), 0, kFirstSend + empty);
    }
    if (piecesLeft == 0) {
        sending = false;
        events.sent(-ESHUTDOWN);
    }
}

void Endpoints::CancelSend(int error) {
    if (!sending) return;
    if (sendError == 0) sendError = error;
    // From the last one on: no piece may go out after one that did not.
    for (std::size_t i = sends.size(); i-- > 0;) {
        io_event ignored;
        if (sends[i].inFlight) syscall(SYS_io_cancel, context.id, &sends[i].block, &ignored);
    }
}

void Endpoints::OnSent(std::size_t number, long result) {
    sends[number].inFlight = false;
    if (number >= kPieces) return;
    --piecesLeft;
    if (result >= 0) {
        sent += static_cast<std::size_t>(result);
    } else if (sendError == 0) {
        sendError = ESHUTDOWN;
    }
    if (piecesLeft > 0) return;
    sending = false;
    counters.toHost += sent;
    const bool isShort = sendError != 0 && (sent == 0 || !IsCableIn());
    events.sent(isShort ? -sendError : static_cast<long>(sent));
}

// --- the ends of transfers

void Endpoints::OnTransfers() {
    std::uint64_t ended = 0;
    (void)!read(transferEnded.Get(), &ended, sizeof ended);
    const std::size_t before = written;
    for (;;) {
        std::array<io_event, 64> list;
        timespec zero{};
        const long count =
            syscall(SYS_io_getevents, context.id, 0, list.size(), list.data(), &zero);
        if (count <= 0) break;
        for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
            const auto result = static_cast<long>(list[i].res);
            const auto number = static_cast<std::size_t>(list[i].data);
            if (number >= kFirstSend) {
                OnSent(number - kFirstSend, result);
            } else {
                OnReceived(number, result);
            }
        }
    }
    Receive();
    if (written != before) events.received();
}

}  // namespace vexa::usb
