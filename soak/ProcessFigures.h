// What a process holds of the system's resources.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace vexa::soak {

struct ProcessFigures {
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    std::size_t memoryKiB = 0;  // resident and its own: pages of files come and go with use
};

// All zero when there is no such process.
[[nodiscard]] ProcessFigures FiguresOf(pid_t process);

// The process that `parent` started last and that still runs; -1 when there is none.
[[nodiscard]] pid_t LastChildOf(pid_t parent);

[[nodiscard]] bool IsRunning(pid_t process);

// "12 threads, 20 descriptors, 900 KiB"
[[nodiscard]] std::string ToText(const ProcessFigures& figures);

}  // namespace vexa::soak
