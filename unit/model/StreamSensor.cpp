#include "model/StreamSensor.h"

#include "protocol/Packet.h"

namespace vexa::unit {

StreamSensor::StreamSensor(const DeviceSettings& settings, TimePoint opened)
    : PacedDevice(opened, settings.blockSize, settings.rate, settings.waveform),
      echo(settings.echo) {
    StartBlocks(opened);
}

void StreamSensor::Take(std::span<const std::uint8_t> written, TimePoint now) {
    if (echo && !written.empty()) Answer({written.begin(), written.end()}, now);
}

void StreamSensor::MakeBlock(std::span<std::uint8_t> block, std::uint32_t milliseconds) {
    FillSamplePacket(block, counter++, milliseconds, Wave());
    SealPacket(block);
}

}  // namespace vexa::unit
