# 64-bit ARM.
set(VEXA_CROSS_TRIPLET aarch64-linux-gnu)
set(VEXA_CROSS_QEMU qemu-aarch64-static)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/DebianCross.cmake)
