// Files as sources: samples out of a table, or what a device sent in a recording.
#pragma once

#include <memory>
#include <string>

#include "sources/Source.h"

namespace vexa::unit {

// A .csv file has a line with the names of its columns, and then a line for each moment. A column
// "time_s" or "epoch_s", or the first one if its name begins with "time", has seconds, which do not
// go back. Lines that begin with # are skipped. Samples that are all whole numbers of 16 bits are
// sent as such, others as 32-bit floats.
//
// Of a .pcapng file, a recording of a session, the blocks of one device are sent as they were, at
// their times. `device` is its name there unless the settings give another.
[[nodiscard]] std::unique_ptr<Source> MakeFileSource(const SourceSettings& settings,
                                                     const std::string& device);

}  // namespace vexa::unit
