#include "usb/UsbLink.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace vexa::usb {

namespace {

// Held from the start to the end, whatever that is: nothing may be cleared away that belongs to one
// that runs. Its file stays, as one that is removed could be locked twice.
testkit::Descriptor LockOf(const std::string& node) {
    const std::string path = "/run/vexa-usb." + node + ".lock";
    testkit::Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file) throw SetupError("cannot open " + path + ": " + std::strerror(errno));
    if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        throw SetupError("/dev/" + node + " is taken: another vexa-usb serves it");
    }
    return file;
}

// A node of this name that is there already is another's.
const LinkSettings& WithFreeNode(const LinkSettings& settings) {
    const std::string node = "/dev/" + settings.node;
    if (std::filesystem::exists(node)) {
        throw SetupError(node + " is there already: a driver or another program serves it");
    }
    return settings;
}

}  // namespace

UsbLink::UsbLink(const LinkSettings& settings_)
    : lock(LockOf(settings_.node)),
      settings(WithFreeNode(settings_)),
      gadget(settings.node, settings.gadget),
      endpoints(gadget.Function(), settings.gadget.productName, settings.cable,
                {[this] { node.OnReceived(); }, [this](long result) { node.OnSent(result); },
                 [this] { node.OnBegunAnew(); },
                 [this] {
                     node.OnCableChanged();
                     SayCable();
                 }}),
      node(settings.node, endpoints),
      status(settings.node, [this] { return Status(); }) {}

void UsbLink::Run() {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&ends, number);
    const testkit::Descriptor signals(signalfd(-1, &ends, SFD_CLOEXEC));
    const testkit::Descriptor poll(epoll_create1(EPOLL_CLOEXEC));
    for (const int descriptor :
         {signals.Get(), node.Descriptor(), node.HoldDescriptor(), status.Descriptor(),
          endpoints.ControlDescriptor(), endpoints.TransferDescriptor()}) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = descriptor;
        if (epoll_ctl(poll.Get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
            throw SetupError(std::string("cannot watch a descriptor: ") + std::strerror(errno));
        }
    }
    for (;;) {
        std::array<epoll_event, 8> list;
        const int count = epoll_wait(poll.Get(), list.data(), list.size(), -1);
        // The cable comes first: bytes and requests are to be taken as of its present state.
        for (int i = 0; i < count; ++i) {
            const int ready = list[static_cast<std::size_t>(i)].data.fd;
            if (ready == signals.Get()) return;
            if (ready == endpoints.ControlDescriptor()) endpoints.OnControl();
        }
        for (int i = 0; i < count; ++i) {
            const int ready = list[static_cast<std::size_t>(i)].data.fd;
            if (ready == endpoints.TransferDescriptor()) endpoints.OnTransfers();
            if (ready == node.HoldDescriptor()) node.OnHoldOver();
            if (ready == status.Descriptor()) status.OnConnection();
            if (ready != node.Descriptor()) continue;
            if (!node.OnRequests()) {
                throw SetupError("the kernel has ended the node /dev/" + settings.node);
            }
            if (node.IsReady() && !isReady) OnReady();
        }
    }
}

// The gadget is shown to hosts once there is a node, so that no byte arrives before.
void UsbLink::OnReady() {
    isReady = true;
    gadget.Bind();
    std::printf("vexa-usb: serves /dev/%s on %s as %04x:%04x%s, serial number %s\n",
                settings.node.c_str(), gadget.Controller().c_str(), settings.gadget.vendor,
                settings.gadget.product,
                settings.gadget.vendor == 0x1209 && settings.gadget.product == 0x0001
                    ? " (numbers for tests; --id sets your own)"
                    : "",
                settings.gadget.serialNumber.c_str());
}

void UsbLink::SayCable() {
    if (endpoints.IsCableIn()) {
        std::printf("vexa-usb: the cable is in, %s\n", gadget.Speed().c_str());
    } else {
        std::printf("vexa-usb: the cable is out\n");
    }
}

std::string UsbLink::Status() const {
    const Counters& count = endpoints.Count();
    const std::string speed = endpoints.IsCableIn() ? gadget.Speed() : "";
    const auto flag = [](bool value) { return value ? "true" : "false"; };
    char text[640];
    std::snprintf(text, sizeof text,
                  "cable %s%s%s, node %s; from the host %" PRIu64 " bytes, to the host %" PRIu64
                  " bytes; the host waited %" PRIu64 " times; dropped %" PRIu64
                  " bytes\n"
                  R"({"cable": %s, "speed": "%s", "open": %s, "fromHost": %)" PRIu64
                  R"(, "toHost": %)" PRIu64 R"(, "hostWaits": %)" PRIu64 R"(, "dropped": %)" PRIu64
                  "}\n",
                  endpoints.IsCableIn() ? "in" : "out", speed.empty() ? "" : ", ", speed.c_str(),
                  node.IsOpen() ? "open" : "closed", count.fromHost, count.toHost, count.hostWaits,
                  count.dropped, flag(endpoints.IsCableIn()), speed.c_str(), flag(node.IsOpen()),
                  count.fromHost, count.toHost, count.hostWaits, count.dropped);
    return text;
}

}  // namespace vexa::usb
