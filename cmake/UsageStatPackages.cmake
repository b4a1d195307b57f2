# Debian packages, made by `cpack` from the components of UsageStatInstall.cmake.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME usage-stat)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "usage statistics of an e-book reader's applications")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "usage_stat developers <usage-stat@localhost>")
set(CPACK_PACKAGE_DIRECTORY "${CMAKE_BINARY_DIR}/packages")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

# What a package needs of the system, and what others need that link its libraries, is read from the
# binaries; the first needs to know where the libraries of this build lie.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "${CMAKE_BINARY_DIR}/src"
  "${CMAKE_BINARY_DIR}/platform/common_utilities"
  "${CMAKE_BINARY_DIR}/platform/corvane")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# Describes the package that holds one component. DEPENDS names packages of this build.
macro(usage_stat_package component name section depends description)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  string(TOUPPER ${component} key)
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${key}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_COMPONENT_${key}_DESCRIPTION "${description}")
endmacro()

# A device's own pair of platform libraries may stand in for the workstation's.
set(platform "libusage-stat-platform1 | usage-stat-platform")
set(library "libusage-stat1 (= ${PROJECT_VERSION})")

usage_stat_package(library libusage-stat1 libs "${platform}"
"Applications call its functions to report what the user does. Each call sends
one record to the collector of usage-stat-tools.")
usage_stat_package(development libusage-stat-dev libdevel "${library}"
"The header, the pkg-config file and the CMake package of libusage_stat.")
if(USAGE_STAT_BUILD_PLATFORM)
  usage_stat_package(platform libusage-stat-platform1 libs ""
"libcommon_utilities and libcorvane for a workstation: what the firmware of a
device does for libusage_stat.")
  set(CPACK_DEBIAN_PLATFORM_PACKAGE_PROVIDES usage-stat-platform)
endif()
if(USAGE_STAT_BUILD_TOOLS)
  usage_stat_package(tools usage-stat-tools utils "${library}, ${platform}"
"usage-stat-collector receives and stores records; usage-stat shows, queries
and reports them.")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
    "${CMAKE_CURRENT_SOURCE_DIR}/packaging/maintainer/postinst"
    "${CMAKE_CURRENT_SOURCE_DIR}/packaging/maintainer/prerm"
    "${CMAKE_CURRENT_SOURCE_DIR}/packaging/maintainer/postrm")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_STRICT_PERMISSION ON)
endif()

include(CPack)
