// Owns a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace vexa::unit {

class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int descriptor_) : descriptor(descriptor_) {}
    Descriptor(Descriptor&& other) noexcept : descriptor(std::exchange(other.descriptor, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(descriptor, other.descriptor);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (descriptor >= 0) ::close(descriptor);
    }

    // -1 when nothing is owned.
    [[nodiscard]] int Get() const { return descriptor; }
    explicit operator bool() const { return descriptor >= 0; }

  private:
    int descriptor = -1;
};

}  // namespace vexa::unit
