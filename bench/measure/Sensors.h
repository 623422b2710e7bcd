// The device-access library of the measured process: three sensors that cost next to nothing, so
// that what is measured is the service.
//
//   name     type  what is written to it
//   "sink"     8   is counted; one byte alone asks for the count, which comes as a block of 8 bytes
//   "echo"     9   comes back at once, as a block, on the writing thread
//   "source"  11   two 32-bit numbers set the size of the blocks that it sends, and how many a
//                  second; 0 a second ends that
//
// Numbers are little-endian.
#pragma once

#include <cstdint>

namespace vexa::measure {

inline constexpr std::uint32_t kSinkType = 8;
inline constexpr std::uint32_t kEchoType = 9;
inline constexpr std::uint32_t kSourceType = 11;

// What the source's thread is called, so that its time can be told from the service's.
inline constexpr char kSourceThread[] = "source";

}  // namespace vexa::measure
