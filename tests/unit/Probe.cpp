// A program for tests to run on a virtual unit: ends with the status that its argument says, or,
// for "wait", initialises the device-access library and waits to be ended.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "VEXA.h"

int main(int argc, char** argv) {
    if (argc < 2 || std::strcmp(argv[1], "wait") != 0) return argc < 2 ? 0 : std::atoi(argv[1]);
    (void)VEXA_Init();
    // Never flushed, as what the service prints.
    std::printf("waits in %s group\n", ::getpgrp() == ::getpid() ? "its own" : "another's");
    return ::pause();
}
