// Owns a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace vexa::testkit {

class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int descriptor_) : descriptor(descriptor_) {}
    Descriptor(Descriptor&& other) noexcept : descriptor(other.Release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(descriptor, other.descriptor);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { Close(); }

    // -1 when nothing is owned.
    [[nodiscard]] int Get() const { return descriptor; }
    explicit operator bool() const { return descriptor >= 0; }

    // Gives the descriptor away, unclosed.
    [[nodiscard]] int Release() { return std::exchange(descriptor, -1); }

    void Close() {
        if (descriptor >= 0) ::close(std::exchange(descriptor, -1));
    }

  private:
    int descriptor = -1;
};

}  // namespace vexa::testkit
