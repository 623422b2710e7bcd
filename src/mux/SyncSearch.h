// Looks for the initial-sync packet in the host's bytes. Part of the packet stream; main thread
// only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mux/Packet.h"

namespace vexa {

// The signature's twenty bytes all differ, so a byte tells at once how far from it the signature
// can end at the earliest: most data is searched by looking at every twentieth byte.
class SyncSearch {
  public:
    // How many bytes before those given to Find it may look at.
    static constexpr std::size_t kHistory = kInitialSyncSize - 1;

    // Starts anew: what came so far is no part of an initial sync to come.
    void Reset() { unseen = kHistory; }

    // Searches the next `count` bytes of the stream, which in memory stand behind the kHistory
    // bytes that came before them. Returns the index of the byte that completes an initial sync,
    // `count` when none does. Where one does, Reset comes next.
    std::size_t Find(const std::uint8_t* bytes, std::size_t count);

  private:
    std::size_t unseen = kHistory;  // bytes still to come of which none can complete a sync
};

}  // namespace vexa
