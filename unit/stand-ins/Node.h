// The node "/dev/zt-usb" as this process sees it: which descriptors are opens of it, and what the
// system calls on those do.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace vexa::unit {

// All functions: any thread; errors as the system calls report them, by -1 and errno.

// Whether `path` names the node.
[[nodiscard]] bool IsNodePath(const char* path);

// Whether `descriptor` is an open of the node. Cheap; touches nothing but a few atomics, so that it
// can be asked at any time, however early.
[[nodiscard]] bool IsNode(int descriptor);

// A new open of the node. ENOENT when the unit has none, EMFILE with too many open.
[[nodiscard]] int OpenNode();

// `descriptor` is about to be closed and is no open of the node any more.
void ForgetNode(int descriptor);

// Of any open of the node.
[[nodiscard]] ssize_t ReadNode(void* into, std::size_t size);
[[nodiscard]] ssize_t WriteNode(const void* bytes, std::size_t size);
[[nodiscard]] int ControlNode(unsigned long request, void* argument);

}  // namespace vexa::unit
