// A device of a live unit.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "page/LiveUnit.h"

namespace vexahost::page {

// What is not guarded is the collecting thread's alone.
struct LiveUnit::Device {
    Device(std::string name_, ChildId child_, std::shared_ptr<const DeviceFormats> formats)
        : name(std::move(name_)), child(child_), reader(name, std::move(formats), 0) {}

    const std::string name;
    const ChildId child;
    SampleReader reader;
    std::atomic<double> opened = 0;
    double readerOpened = -1;  // the opening that the reader knows of

    // Guarded by LiveUnit::mutex.
    bool isOpen = false;
    std::string problem{};
    std::vector<Channel> channels{};  // changed by the collecting thread alone
    std::optional<double> rate{};
    ChildStatistics former{};  // of the openings before this one
};

}  // namespace vexahost::page
