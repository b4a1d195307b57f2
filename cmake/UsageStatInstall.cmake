# What `cmake --install` and the packages hold. Included last, when every target is known.
#
# Components: library (what a device needs), development, core (to build collectors in C++), platform
# (the host's pair of platform libraries), tools, uplink (what sends to a fleet), fleet.

include(CMakePackageConfigHelpers)

# ---- The library and what is needed to build with it ----

install(TARGETS usage_stat
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    COMPONENT library NAMELINK_COMPONENT development)
install(FILES include/usage_stat.h
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development)

# The folder of the CMake package, the pkg-config file and the library stay together when the whole
# tree is moved.
set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/usage_stat")
configure_package_config_file(cmake/usage_stat-config.cmake.in usage_stat-config.cmake
  INSTALL_DESTINATION "${package_dir}"
  PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(usage_stat-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    "${CMAKE_CURRENT_BINARY_DIR}/usage_stat-config.cmake"
    "${CMAKE_CURRENT_BINARY_DIR}/usage_stat-config-version.cmake"
  DESTINATION "${package_dir}" COMPONENT development)

file(RELATIVE_PATH prefix_from_pc
  "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" prefix_from_pc "${prefix_from_pc}")
configure_file(cmake/usage_stat.pc.in usage_stat.pc @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/usage_stat.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)

# ---- The host's platform libraries, and the records' classes for collectors in C++ ----

if(USAGE_STAT_BUILD_PLATFORM)
  install(TARGETS common_utilities corvane
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
      COMPONENT platform NAMELINK_COMPONENT core)

  set_target_properties(usage_stat_core PROPERTIES EXCLUDE_FROM_ALL OFF)
  install(TARGETS usage_stat_core
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT core)
  set(core_headers "${CMAKE_INSTALL_INCLUDEDIR}/usage_stat_core")
  install(DIRECTORY src/stat_event src/events src/measurements
    DESTINATION "${core_headers}/src" COMPONENT core
    FILES_MATCHING PATTERN "*.h" PATTERN "event_types.inc")
  install(DIRECTORY "${USAGE_STAT_PLATFORM_INCLUDE_DIR}/"
    DESTINATION "${core_headers}" COMPONENT core FILES_MATCHING PATTERN "*.h")
  configure_file(cmake/usage_stat_core.pc.in usage_stat_core.pc @ONLY)
  install(FILES "${CMAKE_CURRENT_BINARY_DIR}/usage_stat_core.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT core)
endif()

# ---- Programs, with their manual pages, and what starts them ----

function(install_program target component)
  if(TARGET ${target})
    install(TARGETS ${target} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT ${component})
    get_target_property(name ${target} OUTPUT_NAME)
    file(GLOB pages CONFIGURE_DEPENDS "docs/man/${name}.[1-8]")
    foreach(page ${pages})
      string(REGEX REPLACE ".*[.]" "" section "${page}")
      install(FILES "${page}"
        DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}" COMPONENT ${component})
    endforeach()
    file(GLOB units CONFIGURE_DEPENDS "packaging/${name}.service" "packaging/${name}.timer")
    install(FILES ${units} DESTINATION lib/systemd/system COMPONENT ${component})
  endif()
endfunction()

install_program(usage_stat_collector tools)
install_program(usage_stat_inspector tools)
install_program(usage_stat_sample tools)
install_program(usage_stat_uplink uplink)
install_program(usage_stat_fleet fleet)

if(TARGET usage_stat_inspector)
  install(FILES packaging/completion/usage-stat
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" COMPONENT tools)
endif()
if(TARGET usage_stat_uplink)
  # Where the program looks for them: CMAKE_INSTALL_SYSCONFDIR alone is /usr/etc below /usr.
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(settings "${CMAKE_INSTALL_FULL_SYSCONFDIR}/usage-stat")
  else()
    set(settings "${CMAKE_INSTALL_SYSCONFDIR}/usage-stat")
  endif()
  install(FILES fleet/consent/policy.json packaging/uplink.conf
    DESTINATION "${settings}" COMPONENT uplink)
  install(FILES fleet/consent/policy.schema.json
    DESTINATION "${CMAKE_INSTALL_DATADIR}/usage-stat" COMPONENT uplink)
endif()
