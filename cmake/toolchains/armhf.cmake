# 32-bit ARM with hard-float registers.
set(VEXA_CROSS_TRIPLET arm-linux-gnueabihf)
set(VEXA_CROSS_QEMU qemu-arm-static)
set(CMAKE_SYSTEM_PROCESSOR arm)
# Nothing is linked that a compiler older than GCC 7 has built.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/DebianCross.cmake)
