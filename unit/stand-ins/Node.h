// The node "/dev/zt-usb" as this process sees it: which descriptors belong to it, and what system
// calls on them do.
//
// Every descriptor of the node is a duplicate of one socket, which is never connected. A descriptor
// is the node's if that socket is behind it, so copies of it (dup, dup2, fcntl) are, too, and a
// number that has gone to another file is not, whoever closed it. A system call that is not stood
// in for meets the bare socket and fails, reads with EINVAL and writes with ENOTCONN.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace vexa::unit {

// Any thread. Errors are reported like those of system calls, by -1 and errno.

// Whether `path` names the node.
[[nodiscard]] bool IsNodePath(const char* path);

// Whether `descriptor` belongs to the node; errno stays as it is. It can be called at any time,
// however early, and costs one fstat once the node has been opened.
[[nodiscard]] bool IsNode(int descriptor);

// Opens the node. ENOENT when the unit has none.
[[nodiscard]] int OpenNode();

// System calls on any descriptor of the node.
[[nodiscard]] ssize_t ReadNode(void* into, std::size_t size);
[[nodiscard]] ssize_t WriteNode(const void* bytes, std::size_t size);
[[nodiscard]] int ControlNode(unsigned long request, void* argument);

}  // namespace vexa::unit
