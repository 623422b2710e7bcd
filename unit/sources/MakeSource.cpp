#include "sources/FileSource.h"
#include "sources/HidrawSource.h"
#include "sources/IioModule.h"
#include "sources/SerialSource.h"
#include "sources/Source.h"

namespace vexa::unit {

std::unique_ptr<Source> MakeSource(const SourceSettings& settings, const std::string& device) {
    if (!settings.iio.empty()) return MakeIioSource(settings);
    if (!settings.hidraw.empty()) return MakeHidrawSource(settings);
    if (!settings.serial.empty()) return MakeSerialSource(settings);
    return MakeFileSource(settings, device);
}

}  // namespace vexa::unit
