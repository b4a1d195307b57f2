# What `cmake --install` and the packages hold. Included last, when every target is known.
#
# Components: library (what a device needs), development, platform (the host's pair of platform
# libraries), tools.

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
  NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
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

# ---- The host's platform libraries ----

if(USAGE_STAT_BUILD_PLATFORM)
  install(TARGETS common_utilities corvane
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT platform NAMELINK_SKIP)
endif()

# ---- Programs, their manual pages and completions, and the collector as a service ----

set(pages)
foreach(program usage_stat_collector usage_stat_inspector usage_stat_sample)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    get_target_property(name ${program} OUTPUT_NAME)
    file(GLOB program_pages CONFIGURE_DEPENDS "docs/man/${name}.[1-8]")
    list(APPEND pages ${program_pages})
  endif()
endforeach()
if(pages)
  find_program(GZIP_PROGRAM gzip)
  foreach(page ${pages})
    get_filename_component(name "${page}" NAME)
    string(REGEX REPLACE ".*[.]" "" section "${name}")
    if(GZIP_PROGRAM)
      set(packed "${CMAKE_CURRENT_BINARY_DIR}/man/${name}.gz")
      add_custom_command(OUTPUT "${packed}"
        COMMAND "${CMAKE_COMMAND}" -E make_directory "${CMAKE_CURRENT_BINARY_DIR}/man"
        COMMAND "${GZIP_PROGRAM}" -9nc "${page}" > "${packed}"
        DEPENDS "${page}" VERBATIM)
      set(page "${packed}")
    endif()
    list(APPEND installed_pages "${page}")
    install(FILES "${page}"
      DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}" COMPONENT tools)
  endforeach()
  add_custom_target(man ALL DEPENDS ${installed_pages})
endif()
if(TARGET usage_stat_collector)
  install(FILES packaging/usage-stat-collector.service
    DESTINATION lib/systemd/system COMPONENT tools)
endif()
if(TARGET usage_stat_inspector)
  install(FILES packaging/completion/usage-stat
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" COMPONENT tools)
endif()

if(PROJECT_IS_TOP_LEVEL)
  include(UsageStatPackages)
endif()
