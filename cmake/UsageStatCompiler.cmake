# Settings that every target of the tree shares.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release)
endif()

# Programs and tests find the libraries of this build wherever the tree lies.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# So do installed ones, except where the system's own search path leads to them, as on a device.
if(USAGE_STAT_BUILD_PLATFORM AND NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  file(RELATIVE_PATH libdir_from_bindir "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(CMAKE_INSTALL_RPATH "$ORIGIN" "$ORIGIN/${libdir_from_bindir}")
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-psabi)
if(USAGE_STAT_WERROR)
  add_compile_options(-Werror)
endif()

# The std::string of before GCC 5, for platform libraries that were built with it.
option(USAGE_STAT_OLD_STRING_ABI "Build with GCC 4's std::string" OFF)
if(USAGE_STAT_OLD_STRING_ABI)
  add_compile_definitions(_GLIBCXX_USE_CXX11_ABI=0)
endif()

# What Debian builds its packages with, so that what is tested is what is shipped. A sanitizer looks
# at the same mistakes more closely, and a debug build has the code as written.
if(NOT USAGE_STAT_SANITIZE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  add_compile_options(-fstack-protector-strong -Wformat -Werror=format-security
                      -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64|i.86")
    add_compile_options(-fcf-protection)
  endif()
  add_link_options(LINKER:-z,relro,-z,now)
  include(CheckPIESupported)
  check_pie_supported()
endif()

# For a device, what a program does not reach is left out of it.
add_compile_options($<$<CONFIG:MinSizeRel>:-ffunction-sections> $<$<CONFIG:MinSizeRel>:-fdata-sections>)
add_link_options($<$<CONFIG:MinSizeRel>:LINKER:--gc-sections>)

# Timestamps must outlive 2038 on 32-bit targets too. (The library sees to that by itself.)
add_compile_definitions(_FILE_OFFSET_BITS=64)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_TIME_BITS=64)
  include(CheckTypeSize)
  set(CMAKE_REQUIRED_DEFINITIONS -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64)
  set(CMAKE_EXTRA_INCLUDE_FILES time.h)
  check_type_size(time_t USAGE_STAT_TIME_T)
  unset(CMAKE_REQUIRED_DEFINITIONS)
  unset(CMAKE_EXTRA_INCLUDE_FILES)
  if(USAGE_STAT_TIME_T LESS 8)
    message(WARNING "This C library has no 64-bit time_t: what is built with it tells wrong times after 2038-01-19")
  endif()
endif()

# Presets set USAGE_STAT_SANITIZE to "address,undefined" or "thread".
set(USAGE_STAT_SANITIZE "" CACHE STRING "Sanitizers to build with, separated by commas")
if(USAGE_STAT_SANITIZE)
  # Line numbers are all that a report of theirs shows.
  add_compile_options(-fsanitize=${USAGE_STAT_SANITIZE} -fno-omit-frame-pointer -g1 -O1)
  add_link_options(-fsanitize=${USAGE_STAT_SANITIZE})
  if(USAGE_STAT_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=all)
  endif()
  if(USAGE_STAT_SANITIZE MATCHES "implicit-conversion")
    add_compile_options(
      "-fsanitize-ignorelist=${CMAKE_CURRENT_LIST_DIR}/sanitizer-ignorelist.txt")
  endif()
endif()

# A fuzzer sees which branches its input reaches in every library that it links.
if(USAGE_STAT_BUILD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
