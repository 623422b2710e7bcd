#include "vexahost/Samples.h"

#include <algorithm>
#include <utility>

namespace vexahost {

SampleReader::SampleReader(std::string device_, std::shared_ptr<const DeviceFormats> formats_,
                           double opened_)
    : device(std::move(device_)), formats(std::move(formats_)), opened(opened_) {
    if (const auto* const own = formats->Find(device)) Use(own);
}

void SampleReader::Use(const DeviceFormat* found) {
    format = found;
    SampleClock::Options options{opened, format->rate};
    if (format->time) {
        const bool isCount = format->time->type.kind != SampleType::Kind::kFloat;
        options.tick = isCount ? format->time->tick : 0;
        options.wrap = format->time->Wrap();
    }
    clock.emplace(options);
    block.values.resize(format->channels.size());
}

const SampleBlock* SampleReader::Read(std::span<const std::uint8_t> bytes, std::uint8_t sequence,
                                      double arrival, bool checksumRight) {
    if (format == nullptr) {
        const auto* const guessed = formats->Find(device, bytes);
        if (guessed == nullptr) return nullptr;
        Use(guessed);
    }
    // The number of a damaged block may be wrong, and its samples are missing: a gap.
    if (!checksumRight) return nullptr;
    std::size_t count = 0;
    if (format->HasSamples(bytes)) {
        for (std::size_t i = 0; i < block.values.size(); ++i) {
            block.values[i].clear();
            format->channels[i].Decode(bytes, block.values[i]);
            count = i == 0 ? block.values[i].size() : std::min(count, block.values[i].size());
        }
    }
    // The last sample of a block may be cut off in some channels.
    for (auto& row : block.values) row.resize(std::min(row.size(), count));
    block.deviceSeconds = count > 0 ? format->TimeOf(bytes) : std::nullopt;
    block.times = clock->Place(sequence, arrival, block.deviceSeconds, count);
    return count > 0 ? &block : nullptr;
}

void SampleReader::Reopen(double opened_) {
    opened = opened_;
    if (clock) clock->Reopen(opened);
}

std::optional<double> SampleReader::Rate() const { return clock ? clock->Rate() : std::nullopt; }

}  // namespace vexahost
