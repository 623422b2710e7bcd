// A serial line as a source: bytes both ways.
#pragma once

#include <memory>

#include "sources/Source.h"

namespace vexa::unit {

// Blocks are cut at a pause, at the delimiter if there is one, and at kMaxSourceBlock bytes.
[[nodiscard]] std::unique_ptr<Source> MakeSerialSource(const SourceSettings& settings);

}  // namespace vexa::unit
