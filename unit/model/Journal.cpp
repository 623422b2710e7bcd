#include "model/Journal.h"

#include <fcntl.h>

#include <cerrno>
#include <system_error>

namespace vexa::unit {

Journal::Journal(const std::string& path) {
    if (path.empty()) return;
    file = Descriptor(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
    if (!file) throw std::system_error(errno, std::generic_category(), path);
}

void Journal::Write(std::string line) const {
    if (!file) return;
    line += '\n';
    // A full disk costs the journal, never the service.
    [[maybe_unused]] const auto written = ::write(file.Get(), line.data(), line.size());
}

}  // namespace vexa::unit
