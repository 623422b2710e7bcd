# Cross building with the distribution's compiler and its libraries for the other architecture. The
# toolchain files beside this one set VEXA_CROSS_TRIPLET and VEXA_CROSS_QEMU and include it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${VEXA_CROSS_TRIPLET}-g++)

# What the tests are started with. Linked statically: LD_PRELOAD then reaches the emulated program
# alone, and not the emulator, for which the library is of the wrong architecture.
set(CMAKE_CROSSCOMPILING_EMULATOR ${VEXA_CROSS_QEMU})
