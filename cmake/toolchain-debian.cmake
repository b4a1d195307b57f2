# Debian's cross compiler for the processor that the including file names, with the libraries that
# scripts/sysroot has unpacked. Programs run under qemu.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)

get_filename_component(CMAKE_SYSROOT
  "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-${architecture}" ABSOLUTE)
if(NOT EXISTS "${CMAKE_SYSROOT}")
  message(FATAL_ERROR "${CMAKE_SYSROOT} is missing; run `scripts/sysroot ${architecture}` first")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR} -L "${CMAKE_SYSROOT}")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/${triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
