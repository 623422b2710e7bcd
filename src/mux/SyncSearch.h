// Looks for the initial-sync packet in the host's bytes. Part of the packet stream. Main thread
// only.
#pragma once

#include <cstddef>
#include <span>

#include "protocol/InitialSync.h"

namespace vexa {

// The signature's twenty bytes all differ, so each byte tells how far from it the signature can end
// at the earliest: most data is searched by looking at every twentieth byte.
class SyncSearch {
  public:
    // How many bytes before those given to Find it may look at.
    static constexpr std::size_t kHistory = kInitialSyncSize - 1;

    // Starts anew: no earlier byte is part of the next initial sync.
    void Reset() { unseen = kHistory; }

    // Searches the stream's next bytes. `window` is the kHistory bytes that came before them and
    // then the bytes themselves. Returns how many of the new bytes end with an initial sync, its
    // last byte included; 0 when none ends here. After a sync was found, Reset must be called
    // before the next Find.
    std::size_t Find(std::span<const std::uint8_t> window);

  private:
    std::size_t unseen = kHistory;  // so many of the bytes to come cannot complete a sync
};

}  // namespace vexa
