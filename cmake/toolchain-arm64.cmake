# 64-bit ARM.
set(architecture arm64)
set(triplet aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include("${CMAKE_CURRENT_LIST_DIR}/toolchain-debian.cmake")
