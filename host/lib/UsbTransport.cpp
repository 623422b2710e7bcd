#include "vexahost/UsbTransport.h"

#include <libusb.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <deque>
#include <utility>

#include "foundation/Mutex.h"

namespace vexahost {

namespace {

using vexa::Mutex;
using vexa::MutexLock;

struct ContextEnd {
    void operator()(libusb_context* context) const { libusb_exit(context); }
};
using Context = std::unique_ptr<libusb_context, ContextEnd>;

// A context of its own for each look: without the system's device manager, one never learns of what
// is plugged in later.
Context MakeContext() {
    libusb_context* context = nullptr;
    return Context(libusb_init(&context) == 0 ? context : nullptr);
}

struct HandleEnd {
    void operator()(libusb_device_handle* handle) const { libusb_close(handle); }
};
using Handle = std::unique_ptr<libusb_device_handle, HandleEnd>;

std::string Text(libusb_device_handle* handle, std::uint8_t index) {
    std::array<unsigned char, 256> text{};
    if (index == 0) return "";
    const int size = libusb_get_string_descriptor_ascii(handle, index, text.data(), text.size());
    return size > 0 ? std::string(text.begin(), text.begin() + size) : "";
}

std::string Place(libusb_device* device) {
    return "bus " + std::to_string(libusb_get_bus_number(device)) + " device " +
           std::to_string(libusb_get_device_address(device));
}

std::string Problem(int error) {
    if (error == LIBUSB_ERROR_ACCESS) {
        return "this user may not open it (the package vexa-host has a udev rule for that: plug "
               "the unit in "
               "again after installing it, or try as root)";
    }
    return libusb_strerror(error);
}

// Calls `visit(device, unit, handle)` for each unit that fits, until it returns true. The handle is
// null when the unit cannot be opened: then its serial number is not known, and it may be the one
// wanted.
template <typename Visit>
void VisitUnits(libusb_context* context, const UsbAddress& wanted, Visit visit) {
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(context, &list);
    bool isDone = false;
    for (ssize_t i = 0; i < count && !isDone; ++i) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(list[i], &descriptor) != 0 ||
            descriptor.idVendor != wanted.vendor || descriptor.idProduct != wanted.product) {
            continue;
        }
        libusb_device_handle* opened = nullptr;
        const int error = libusb_open(list[i], &opened);
        Handle handle(opened);
        UsbUnit unit;
        unit.address = {descriptor.idVendor, descriptor.idProduct, ""};
        unit.place = Place(list[i]);
        if (error == 0) {
            unit.address.serialNumber = Text(opened, descriptor.iSerialNumber);
            unit.manufacturer = Text(opened, descriptor.iManufacturer);
            unit.product = Text(opened, descriptor.iProduct);
        } else {
            unit.problem = Problem(error);
        }
        if (wanted.serialNumber.empty() || !handle ||
            wanted.serialNumber == unit.address.serialNumber) {
            isDone = visit(list[i], unit, std::move(handle));
        }
    }
    if (list != nullptr) libusb_free_device_list(list, 1);
}

// The interface with a bulk endpoint each way. The kernel of the unit chooses their addresses.
struct Interface {
    int number = -1;
    std::uint8_t in = 0;
    std::uint8_t out = 0;
};

Interface FindInterface(libusb_device* device) {
    libusb_config_descriptor* configuration = nullptr;
    if (libusb_get_active_config_descriptor(device, &configuration) != 0) return {};
    Interface found;
    for (int i = 0; i < configuration->bNumInterfaces && found.number < 0; ++i) {
        const libusb_interface_descriptor& each = configuration->interface[i].altsetting[0];
        Interface candidate{each.bInterfaceNumber, 0, 0};
        for (int e = 0; e < each.bNumEndpoints; ++e) {
            const libusb_endpoint_descriptor& endpoint = each.endpoint[e];
            if ((endpoint.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK) != LIBUSB_TRANSFER_TYPE_BULK)
                continue;
            const bool isIn = (endpoint.bEndpointAddress & LIBUSB_ENDPOINT_IN) != 0;
            (isIn ? candidate.in : candidate.out) = endpoint.bEndpointAddress;
        }
        if (each.bInterfaceClass == LIBUSB_CLASS_VENDOR_SPEC && candidate.in != 0 &&
            candidate.out != 0) {
            found = candidate;
        }
    }
    libusb_free_config_descriptor(configuration);
    return found;
}

timeval AsTime(std::chrono::milliseconds time) {
    return {static_cast<time_t>(time.count() / 1000),
            static_cast<suseconds_t>(time.count() % 1000 * 1000)};
}

Error LinkLost(const char* why) { return {ErrorKind::kLinkLost, why}; }

}  // namespace

// The unit, opened, with several reads under way. Whichever thread waits handles libusb's events,
// so the completions run on any of them.
struct UsbTransport::Bus {
    static constexpr std::size_t kReads = 4;
    static constexpr std::size_t kChunk = 16384;
    // What has come and nobody has read. From here on the unit waits.
    static constexpr std::size_t kMaxHeld = 1U << 20U;
    static constexpr std::chrono::milliseconds kTick{50};

    struct Reading {
        Bus* bus = nullptr;
        libusb_transfer* transfer = nullptr;
        std::array<unsigned char, kChunk> data;
        bool inFlight = false;
    };

    Bus(Context context_, Handle handle_, const Interface& interface_)
        : context(std::move(context_)), handle(std::move(handle_)), interface(interface_) {
        for (Reading& reading : readings) {
            reading.bus = this;
            reading.transfer = libusb_alloc_transfer(0);
            libusb_fill_bulk_transfer(reading.transfer, handle.get(), interface.in,
                                      reading.data.data(), kChunk, OnRead, &reading, 0);
        }
        writing = libusb_alloc_transfer(0);
        const MutexLock lock(mutex);
        SubmitReads();
    }
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    void SubmitReads() VEXA_REQUIRES(mutex);
    void Cancel() VEXA_REQUIRES(mutex);
    [[nodiscard]] bool IsIdle();
    static void LIBUSB_CALL OnRead(libusb_transfer* transfer);
    static void LIBUSB_CALL OnWritten(libusb_transfer* transfer);

    // Lets libusb work until something has happened, `time` at most. Returns at once when another
    // thread's work has set `done` meanwhile.
    void HandleEvents(std::chrono::milliseconds time, int* done = nullptr) const {
        timeval limit = AsTime(std::min(time, kTick));
        libusb_handle_events_timeout_completed(context.get(), &limit, done);
    }

    const Context context;
    const Handle handle;
    const Interface interface;
    std::atomic<bool> closed{false};
    std::atomic<bool> lost{false};

    Mutex mutex;
    std::array<Reading, kReads> readings;
    std::deque<std::uint8_t> held VEXA_GUARDED_BY(mutex);
    libusb_transfer* writing = nullptr;
    bool isWriting VEXA_GUARDED_BY(mutex) = false;

    // For HandleEvents: set by the completions, which run one at a time, and cleared by the thread
    // that is about to wait.
    int readDone = 0;
    int writeDone = 0;
};

UsbTransport::Bus::~Bus() {
    {
        const MutexLock lock(mutex);
        closed = true;
        Cancel();
    }
    while (!IsIdle()) HandleEvents(kTick);
    for (Reading& reading : readings) libusb_free_transfer(reading.transfer);
    libusb_free_transfer(writing);
    // Selecting the setting anew tells the unit that this host has left, which releasing does not.
    if (!lost) libusb_set_interface_alt_setting(handle.get(), interface.number, 0);
    libusb_release_interface(handle.get(), interface.number);
}

void UsbTransport::Bus::SubmitReads() {
    for (Reading& reading : readings) {
        if (reading.inFlight || closed || lost || held.size() >= kMaxHeld) continue;
        reading.inFlight = libusb_submit_transfer(reading.transfer) == 0;
        if (!reading.inFlight) lost = true;
    }
}

void UsbTransport::Bus::Cancel() {
    for (const Reading& reading : readings) {
        if (reading.inFlight) libusb_cancel_transfer(reading.transfer);
    }
    if (isWriting) libusb_cancel_transfer(writing);
}

bool UsbTransport::Bus::IsIdle() {
    const MutexLock lock(mutex);
    return !isWriting && std::ranges::none_of(readings, &Reading::inFlight);
}

void UsbTransport::Bus::OnRead(libusb_transfer* transfer) {
    auto& reading = *static_cast<Reading*>(transfer->user_data);
    Bus& bus = *reading.bus;
    const MutexLock lock(bus.mutex);
    reading.inFlight = false;
    bus.readDone = 1;
    bus.held.insert(bus.held.end(), transfer->buffer, transfer->buffer + transfer->actual_length);
    if (transfer->status == LIBUSB_TRANSFER_COMPLETED) {
        bus.SubmitReads();
    } else if (transfer->status != LIBUSB_TRANSFER_CANCELLED) {
        bus.lost = true;
    }
}

void UsbTransport::Bus::OnWritten(libusb_transfer* transfer) {
    Bus& bus = *static_cast<Bus*>(transfer->user_data);
    const MutexLock lock(bus.mutex);
    bus.isWriting = false;
    bus.writeDone = 1;
    if (transfer->status != LIBUSB_TRANSFER_COMPLETED &&
        transfer->status != LIBUSB_TRANSFER_CANCELLED) {
        bus.lost = true;
    }
}

bool UsbTransport::IsAvailable() { return true; }

std::vector<UsbUnit> UsbTransport::List(const UsbAddress& address) {
    std::vector<UsbUnit> units;
    const Context context = MakeContext();
    if (!context) return units;
    VisitUnits(context.get(), address, [&](libusb_device*, const UsbUnit& unit, const Handle&) {
        units.push_back(unit);
        return false;
    });
    return units;
}

Expected<std::unique_ptr<Transport>> UsbTransport::Connect(const UsbAddress& address) {
    Context context = MakeContext();
    if (!context) return Error{ErrorKind::kCannotConnect, "the system has no USB that can be used"};
    Expected<std::unique_ptr<Transport>> result =
        Error{ErrorKind::kCannotConnect, "no unit " + address.Text() + " is plugged in"};
    Handle opened;
    Interface interface;
    VisitUnits(
        context.get(), address, [&](libusb_device* device, const UsbUnit& unit, Handle handle) {
            const std::string name = "the unit " + address.Text() + " at " + unit.place;
            if (!handle) {
                result = Error{ErrorKind::kCannotConnect, name + ": " + unit.problem};
                return false;  // another one may be accessible
            }
            interface = FindInterface(device);
            if (interface.number < 0) {
                result = Error{ErrorKind::kCannotConnect, name + " has no pair of bulk endpoints"};
                return false;
            }
            const int error = libusb_claim_interface(handle.get(), interface.number);
            if (error == LIBUSB_ERROR_BUSY) {
                result = Error{ErrorKind::kBusy, "another host program has " + name + " open"};
                return false;
            }
            if (error != 0) {
                result = Error{ErrorKind::kCannotConnect, name + ": " + Problem(error)};
                return false;
            }
            // Ends the session of a host that was killed.
            libusb_set_interface_alt_setting(handle.get(), interface.number, 0);
            opened = std::move(handle);
            return true;
        });
    if (!opened) return result;
    auto bus = std::make_unique<Bus>(std::move(context), std::move(opened), interface);
    return std::unique_ptr<Transport>(new UsbTransport(std::move(bus)));
}

UsbTransport::UsbTransport(std::unique_ptr<Bus> opened) : bus(std::move(opened)) {}

UsbTransport::~UsbTransport() = default;

Expected<std::size_t> UsbTransport::Read(std::span<std::uint8_t> buffer,
                                         std::chrono::milliseconds timeout) {
    const Deadline deadline = DeadlineAfter(timeout);
    for (;;) {
        {
            const MutexLock lock(bus->mutex);
            const std::size_t count = std::min(buffer.size(), bus->held.size());
            const auto end = bus->held.begin() + static_cast<std::ptrdiff_t>(count);
            std::copy(bus->held.begin(), end, buffer.begin());
            bus->held.erase(bus->held.begin(), end);
            bus->SubmitReads();
            if (count > 0) return count;
            bus->readDone = 0;
        }
        if (bus->closed) return LinkLost("the connection was closed");
        if (bus->lost) return LinkLost("the unit was unplugged");
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left <= std::chrono::milliseconds(0)) return std::size_t{0};
        bus->HandleEvents(std::chrono::ceil<std::chrono::milliseconds>(
                              std::min<decltype(left)>(left, Bus::kTick)),
                          &bus->readDone);
    }
}

Expected<std::size_t> UsbTransport::Write(std::span<const std::uint8_t> bytes, Deadline deadline) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const std::size_t size = std::min(bytes.size() - sent, Bus::kChunk);
        {
            const MutexLock lock(bus->mutex);
            if (bus->closed) return LinkLost("the connection was closed");
            // libusb does not write to what it sends.
            auto* const data = const_cast<unsigned char*>(bytes.data() + sent);
            libusb_fill_bulk_transfer(bus->writing, bus->handle.get(), bus->interface.out, data,
                                      static_cast<int>(size), Bus::OnWritten, bus.get(), 0);
            bus->writeDone = 0;
            bus->isWriting = !bus->lost && libusb_submit_transfer(bus->writing) == 0;
            if (!bus->isWriting) {
                bus->lost = true;
                return LinkLost("the unit was unplugged");
            }
        }
        const auto isUnderWay = [&] {
            const MutexLock lock(bus->mutex);
            return bus->isWriting;
        };
        bool isLate = false;
        while (isUnderWay()) {
            if (!isLate && (std::chrono::steady_clock::now() >= deadline || bus->closed)) {
                isLate = true;
                libusb_cancel_transfer(bus->writing);
            }
            bus->HandleEvents(Bus::kTick, &bus->writeDone);
        }
        sent += static_cast<std::size_t>(bus->writing->actual_length);
        if (bus->closed) return LinkLost("the connection was closed");
        if (bus->lost) return LinkLost("the unit was unplugged");
        if (isLate) break;
    }
    return sent;
}

void UsbTransport::Close() {
    const MutexLock lock(bus->mutex);
    bus->closed = true;
    bus->Cancel();
    libusb_interrupt_event_handler(bus->context.get());
}

}  // namespace vexahost
