// The node "/dev/zt-usb" as this process sees it: which descriptors belong to it, and what system
// calls on them do.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace vexa::unit {

// Any thread. Errors are reported like those of system calls, by -1 and errno.

// Whether `path` names the node.
[[nodiscard]] bool IsNodePath(const char* path);

// Whether `descriptor` belongs to the node. It is cheap and only reads a few atomics, so it can be
// called at any time, however early.
[[nodiscard]] bool IsNode(int descriptor);

// Opens the node. ENOENT when the unit has none, EMFILE when it is open too often.
[[nodiscard]] int OpenNode();

// Must be called before a descriptor of the node is closed.
void ForgetNode(int descriptor);

// System calls on any descriptor of the node.
[[nodiscard]] ssize_t ReadNode(void* into, std::size_t size);
[[nodiscard]] ssize_t WriteNode(const void* bytes, std::size_t size);
[[nodiscard]] int ControlNode(unsigned long request, void* argument);

}  // namespace vexa::unit
