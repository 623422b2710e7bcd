// What an event leads to, as anybody outside the service can see it.
#pragma once

#include <string>
#include <vector>

#include "support/Bytes.h"

namespace vexa::test {

struct Outcome {
    Bytes toHost;
    std::vector<std::string> calls;   // of the libraries, but for writes
    std::vector<std::string> writes;  // to streams
    std::string printed;
    std::int32_t taken = 0;  // what the stream that sent was told

    bool operator==(const Outcome&) const = default;
};

}  // namespace vexa::test
