#pragma once

namespace vexa::test {

// How often operator new has been called in this process, from any thread. Programs that link
// CountedAllocations.cpp have their allocations counted.
long AllocationsSoFar();

}  // namespace vexa::test
