// The node that the service opens, served from user space through CUSE: what it reads comes from
// the endpoints, and what it writes goes to them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "usb/Endpoints.h"

struct fuse_session;
struct fuse_req;

namespace vexa::usb {

// One thread at a time.
class Node {
  public:
    // The opener learns of the cable by asking, every half second. When a host has come anew in
    // between, the cable counts as out until the opener has asked once, so that it misses no
    // absence, but not for longer than this.
    static constexpr std::chrono::milliseconds kMaxHold{1000};

    // The node /dev/`name`, without a leading folder. Throws SetupError.
    Node(const std::string& name, Endpoints& endpoints);
    ~Node();
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    // To be called when the descriptor has something to read. False once the kernel has ended the
    // node.
    [[nodiscard]] int Descriptor() const;
    [[nodiscard]] bool OnRequests();

    // Whether the node is there, in /dev.
    [[nodiscard]] bool IsReady() const { return ready; }
    [[nodiscard]] bool IsOpen() const { return open; }

    // What the endpoints report.
    void OnReceived() { AnswerRead(); }
    void OnSent(long result);
    void OnBegunAnew();
    void OnCableChanged();

    // While the cable is held out: a descriptor that becomes readable when it has lasted for
    // kMaxHold.
    [[nodiscard]] int HoldDescriptor() const { return holdTimer.Get(); }
    void OnHoldOver();

    // The cable as the opener sees it.
    [[nodiscard]] bool IsCableIn() const { return endpoints.IsCableIn() && !held; }

  private:
    friend struct NodeCalls;

    void Read(fuse_req* request, std::size_t size, int flags);
    void Write(fuse_req* request, std::span<const std::uint8_t> bytes);
    void Ioctl(fuse_req* request, unsigned command, void* argument, std::size_t outSize);
    void Interrupt(fuse_req* request);
    void AnswerRead();
    void EndHold();
    void Release();

    Endpoints& endpoints;
    testkit::Descriptor holdTimer;
    fuse_session* session = nullptr;
    struct Buffer;
    std::unique_ptr<Buffer> buffer;  // the request that is being received
    std::string answer;              // what a read is answered with
    bool ready = false;
    bool open = false;
    bool toldIn = false;  // the opener's last answer: the cable is in
    bool used = false;    // bytes have passed since it was told that the cable is out
    bool held = false;    // the cable counts as out: until the opener is told, or kMaxHold is over

    fuse_req* reading = nullptr;  // requests that wait
    std::size_t readSize = 0;
    fuse_req* writing = nullptr;
};

}  // namespace vexa::usb
