// A program for tests to run on a virtual unit. Its first argument says what it does.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "VEXA.h"

int main(int argc, char** argv) {
    const std::string_view task = argc > 1 ? argv[1] : "";
    if (task == "exit" && argc > 2) return std::atoi(argv[2]);
    if (task == "raise" && argc > 2) return std::raise(std::atoi(argv[2]));
    if (task == "library") (void)VEXA_Init();
    if (::getpgrp() == ::getpid()) std::printf("has its own group\n");
    std::printf("waits\n");  // never flushed, as what the service prints
    return ::pause();
}
