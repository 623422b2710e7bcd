// Sensors of the kernel (Industrial I/O), through libiio. What uses it is a module of its own that
// is loaded when it is needed, so that everything else runs where there is no libiio.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sources/Source.h"

namespace vexa::unit {

// Throws SourceError, also when libiio is missing.
[[nodiscard]] std::unique_ptr<Source> MakeIioSource(const SourceSettings& settings);

struct IioChannel {
    std::string id;
    std::string format;  // such as "le:S12/16>>4", as the kernel calls it; empty: without a buffer
    double scale = 1;
};

struct IioDevice {
    std::string id;
    std::string name;
    std::string label;
    std::vector<IioChannel> channels;
    std::string rates;  // as the kernel lists them; empty: it does not say
    bool hasBuffer = false;
};

// All sensors with their channels. `folder`: where the module is. Throws SourceError.
[[nodiscard]] std::vector<IioDevice> ListIioDevices(const std::string& folder);

}  // namespace vexa::unit
