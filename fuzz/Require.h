// What a fuzz target states: ends the run, with the statement, when it does not hold.
#pragma once

#include <cstdio>
#include <cstdlib>

#define REQUIRE(condition)                                                               \
    do {                                                                                 \
        if (!(condition)) {                                                              \
            std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                \
        }                                                                                \
    } while (false)
