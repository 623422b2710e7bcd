// The list of library calls that were made, for tests and for people: one line a call, without
// addresses or times, so that two runs can be compared.
#pragma once

#include <string>
#include <string_view>

#include "model/Descriptor.h"
#include "model/Export.h"

namespace vexa::unit {

// Any thread: each line is one write to the end of the file.
class VEXA_UNIT_EXPORT Journal {
  public:
    // Appends to the file at `path`; keeps no journal when it is empty. Throws std::system_error
    // when the file cannot be opened.
    explicit Journal(const std::string& path);

    void Write(std::string line) const;

  private:
    Descriptor file;
};

}  // namespace vexa::unit
