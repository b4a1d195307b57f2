# 32-bit ARM from ARMv5TE on, without a floating-point unit.
set(architecture armel)
set(triplet arm-linux-gnueabi)
set(CMAKE_SYSTEM_PROCESSOR arm)
include("${CMAKE_CURRENT_LIST_DIR}/toolchain-debian.cmake")
