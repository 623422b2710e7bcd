#include "sources/HidrawSource.h"

#include <fcntl.h>
#include <linux/hidraw.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "sources/Inventory.h"
#include "testkit/Descriptor.h"

namespace vexa::unit {

namespace {

constexpr std::size_t kReportSize = 8;

class HidrawSource final : public Source {
  public:
    explicit HidrawSource(const SourceSettings& settings_)
        : settings(settings_), wanted(settings.hidraw) {}

    void Run(SourceLine& line) override {
        Open();
        while (!line.IsEnding()) {
            for (const auto& bytes : line.TakeWrites()) Send(line, bytes);
            if (line.Wait(device.Get(), POLLIN, -1) != 0) Receive(line);
        }
    }

  private:
    void Open() {
        path = FindHidraw(wanted);
        if (path.empty()) throw SourceError(WhatIsMissing(settings).value_or(wanted + " has gone"));
        device = testkit::Descriptor(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        if (!device) throw SourceError(WhyNotOpened(path, errno));
        hidraw_report_descriptor descriptor{};
        int size = 0;
        if (::ioctl(device.Get(), HIDIOCGRDESCSIZE, &size) < 0) {
            throw SourceError(path + " is not a HID device");
        }
        descriptor.size = static_cast<std::uint32_t>(size);
        if (::ioctl(device.Get(), HIDIOCGRDESC, &descriptor) < 0) {
            throw SourceError(path + " has no report descriptor: " + std::strerror(errno));
        }
        isNumbered = NumbersReports(std::span(descriptor.value).first(descriptor.size));
    }

    void Receive(SourceLine& line) {
        std::array<std::uint8_t, HID_MAX_DESCRIPTOR_SIZE> report{};
        const ssize_t got = ::read(device.Get(), report.data(), report.size());
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
        if (got <= 0) throw SourceError(wanted + " has gone");
        const auto size = static_cast<std::size_t>(got);
        if (size <= kReportSize) {
            line.Pass(std::span(report).first(kReportSize));
        } else if (std::ranges::count(refusedSizes, size) == 0) {
            refusedSizes.push_back(size);
            line.Tell("reports of " + std::to_string(size) +
                      " bytes are refused: a host gets 8 bytes of a HID device");
        }
    }

    void Send(SourceLine& line, const std::vector<std::uint8_t>& bytes) {
        std::vector<std::uint8_t> report;
        if (!isNumbered) report.push_back(0);
        report.insert(report.end(), bytes.begin(), bytes.end());
        if (::write(device.Get(), report.data(), report.size()) >= 0) return;
        if (errno == ENODEV || errno == EIO) throw SourceError(wanted + " has gone");
        if (!toldOfWrite) line.Tell(path + " takes no output report: " + std::strerror(errno));
        toldOfWrite = true;
    }

    const SourceSettings settings;
    const std::string& wanted;
    std::string path;
    testkit::Descriptor device;
    bool isNumbered = false;
    std::vector<std::size_t> refusedSizes;  // that a line has told of
    bool toldOfWrite = false;
};

}  // namespace

bool NumbersReports(std::span<const std::uint8_t> descriptor) {
    constexpr std::uint8_t kLongItem = 0xFE;
    constexpr std::uint8_t kReportId = 0x84;  // with the size of its value in the two lowest bits
    while (!descriptor.empty()) {
        const std::uint8_t item = descriptor[0];
        std::size_t size = 1 + ((item & 3U) == 3 ? 4U : item & 3U);
        if (item == kLongItem) size = descriptor.size() > 1 ? 3U + descriptor[1] : 1;
        if (item != kLongItem && (item & 0xFCU) == kReportId) return true;
        descriptor = descriptor.subspan(std::min(size, descriptor.size()));
    }
    return false;
}

std::unique_ptr<Source> MakeHidrawSource(const SourceSettings& settings) {
    return std::make_unique<HidrawSource>(settings);
}

}  // namespace vexa::unit
