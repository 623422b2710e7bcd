#define FUSE_USE_VERSION 35
#include "usb/Node.h"

#include <cuse_lowlevel.h>
#include <fcntl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>

#include "usb/Gadget.h"
#include "zt_usb.h"

namespace vexa::usb {

struct Node::Buffer : fuse_buf {
    Buffer() : fuse_buf{} {}
    ~Buffer() { std::free(mem); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
};

// The calls of libfuse, led to the node.
struct NodeCalls {
    static Node& Of(fuse_req_t request) { return *static_cast<Node*>(fuse_req_userdata(request)); }

    static void Init(void* /*node*/, fuse_conn_info* connection) {
        connection->max_write = Endpoints::kMaxSend;
    }
    static void InitDone(void* node) { static_cast<Node*>(node)->ready = true; }

    static void Open(fuse_req_t request, fuse_file_info* file) {
        Node& node = Of(request);
        if (node.open) {
            fuse_reply_err(request, EBUSY);
            return;
        }
        node.open = true;
        file->direct_io = 1;
        file->nonseekable = 1;
        if (fuse_reply_open(request, file) != 0) node.open = false;
    }
    static void Release(fuse_req_t request, fuse_file_info* /*file*/) {
        Of(request).Release();
        fuse_reply_err(request, 0);
    }
    static void Read(fuse_req_t request, std::size_t size, off_t /*offset*/, fuse_file_info* file) {
        Of(request).Read(request, size, file->flags);
    }
    static void Write(fuse_req_t request, const char* data, std::size_t size, off_t /*offset*/,
                      fuse_file_info* /*file*/) {
        Of(request).Write(request, {reinterpret_cast<const std::uint8_t*>(data), size});
    }
    static void Ioctl(fuse_req_t request, int command, void* argument, fuse_file_info* /*file*/,
                      unsigned /*flags*/, const void* /*in*/, std::size_t /*inSize*/,
                      std::size_t outSize) {
        Of(request).Ioctl(request, static_cast<unsigned>(command), argument, outSize);
    }
    static void Interrupted(fuse_req_t request, void* node) {
        static_cast<Node*>(node)->Interrupt(request);
    }

    static constexpr cuse_lowlevel_ops kOperations = [] {
        cuse_lowlevel_ops operations{};
        operations.init = Init;
        operations.init_done = InitDone;
        operations.open = Open;
        operations.release = Release;
        operations.read = Read;
        operations.write = Write;
        operations.ioctl = Ioctl;
        return operations;
    }();
};

Node::Node(const std::string& name, Endpoints& endpoints_)
    : endpoints(endpoints_),
      holdTimer(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)),
      buffer(std::make_unique<Buffer>()) {
    constexpr char kCuse[] = "/dev/cuse";
    if (!std::filesystem::exists(kCuse)) {
        throw SetupError(std::string("no ") + kCuse + ": the kernel needs CUSE (modprobe cuse)");
    }
    const std::string device = "DEVNAME=" + name;
    const char* parameters[] = {device.c_str()};
    cuse_info info{};
    info.dev_info_argc = 1;
    info.dev_info_argv = parameters;
    // ZTG_LINK_STATUS is numbered as a request that hands a value in, and fills one.
    info.flags = CUSE_UNRESTRICTED_IOCTL;
    std::string program = "vexa-usb";
    std::string foreground = "-f";
    char* arguments[] = {program.data(), foreground.data(), nullptr};
    int threads = 0;
    session = cuse_lowlevel_setup(2, arguments, &info, &NodeCalls::kOperations, &threads, this);
    if (session == nullptr) {
        throw SetupError(std::string("cannot make the node /dev/") + name + " through " + kCuse +
                         ": " + std::strerror(errno));
    }
    fcntl(Descriptor(), F_SETFL, fcntl(Descriptor(), F_GETFL) | O_NONBLOCK);
}

Node::~Node() {
    if (reading != nullptr) fuse_reply_err(reading, ESHUTDOWN);
    if (writing != nullptr) fuse_reply_err(writing, ESHUTDOWN);
    cuse_lowlevel_teardown(session);
}

int Node::Descriptor() const { return fuse_session_fd(session); }

bool Node::OnRequests() {
    for (;;) {
        const int size = fuse_session_receive_buf(session, buffer.get());
        if (size == -EINTR) continue;
        if (size == -EAGAIN) return true;
        if (size <= 0) return false;
        fuse_session_process_buf(session, buffer.get());
        if (fuse_session_exited(session) != 0) return false;
    }
}

// --- reading

void Node::Read(fuse_req* request, std::size_t size, int flags) {
    if (reading != nullptr) {
        fuse_reply_err(request, EBUSY);
        return;
    }
    reading = request;
    readSize = size;
    AnswerRead();
    if (reading == nullptr) return;
    if ((flags & O_NONBLOCK) != 0) {
        fuse_reply_err(std::exchange(reading, nullptr), EAGAIN);
        return;
    }
    fuse_req_interrupt_func(request, NodeCalls::Interrupted, this);
}

// A new host's bytes wait until the opener knows that the old one has left.
void Node::AnswerRead() {
    if (reading == nullptr || held || endpoints.Held() == 0) return;
    answer.resize(std::min(readSize, endpoints.Held()));
    endpoints.Take({reinterpret_cast<std::uint8_t*>(answer.data()), answer.size()});
    fuse_reply_buf(std::exchange(reading, nullptr), answer.data(), answer.size());
    used = true;
}

// --- writing

void Node::Write(fuse_req* request, std::span<const std::uint8_t> bytes) {
    if (!IsCableIn()) {
        fuse_reply_err(request, ESHUTDOWN);
    } else if (endpoints.IsSending()) {
        fuse_reply_err(request, EBUSY);
    } else if (bytes.empty()) {
        fuse_reply_write(request, 0);
    } else {
        writing = request;
        used = true;
        endpoints.Send(bytes.first(std::min(bytes.size(), Endpoints::kMaxSend)));
        if (writing != nullptr) fuse_req_interrupt_func(request, NodeCalls::Interrupted, this);
    }
}

void Node::OnSent(long result) {
    if (writing == nullptr) return;
    fuse_req* const request = std::exchange(writing, nullptr);
    if (result >= 0) {
        fuse_reply_write(request, static_cast<std::size_t>(result));
    } else {
        fuse_reply_err(request, static_cast<int>(-result));
    }
}

void Node::Interrupt(fuse_req* request) {
    if (request == reading) {
        reading = nullptr;
        fuse_reply_err(request, EINTR);
    } else if (request == writing) {
        endpoints.CancelSend(EINTR);
    }
}

// --- the cable

// Only the opener knows how much the number's size stands for, so its value is asked for by
// address.
void Node::Ioctl(fuse_req* request, unsigned command, void* argument, std::size_t outSize) {
    if (command != ZTG_LINK_STATUS) {
        fuse_reply_err(request, ENOTTY);
        return;
    }
    const int value = IsCableIn() ? 1 : 0;
    if (outSize == 0) {
        const iovec where{argument, sizeof value};
        fuse_reply_ioctl_retry(request, nullptr, 0, &where, 1);
        return;
    }
    fuse_reply_ioctl(request, 0, &value, sizeof value);
    toldIn = value != 0;
    if (!toldIn) used = false;
    if (held) EndHold();
}

// A host has come anew. An opener that has dealt with an earlier one must see an absence first.
void Node::OnBegunAnew() {
    if (!open || !toldIn || !used) return;
    held = true;
    itimerspec end{};
    end.it_value.tv_sec = kMaxHold.count() / 1000;
    end.it_value.tv_nsec = kMaxHold.count() % 1000 * 1000000;
    timerfd_settime(holdTimer.Get(), 0, &end, nullptr);
    endpoints.CancelSend(ESHUTDOWN);
}

void Node::OnCableChanged() {
    if (IsCableIn()) AnswerRead();
}

void Node::OnHoldOver() {
    std::uint64_t ended = 0;  // not, when another hold has begun meanwhile
    if (::read(holdTimer.Get(), &ended, sizeof ended) == sizeof ended) EndHold();
}

void Node::EndHold() {
    const itimerspec never{};
    timerfd_settime(holdTimer.Get(), 0, &never, nullptr);
    held = false;
    AnswerRead();
}

void Node::Release() {
    open = false;
    toldIn = false;
    endpoints.CancelSend(EINTR);
    if (held) EndHold();
}

}  // namespace vexa::usb
