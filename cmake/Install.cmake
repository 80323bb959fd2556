# What "cmake --install" puts where, and the Debian packages (cpack -G DEB). Two components:
#
#   agent         programs, unit, manual pages, completion, documentation     package tunnel-agent
#   development   the library with its headers, for find_package()            package libtunnel-agent-dev
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME agent)
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)  # to pack the programs, no test need be built
install(TARGETS tunnel-agent tunnelctl fastlog COMPONENT agent)

# Manual pages, compressed as Debian has them.
set(pages)
foreach(page tunnelctl.1 tunnel-agent.8 fastlog.1 tunnel-agent.conf.5)
  cmake_path(GET page EXTENSION LAST_ONLY section)
  cmake_path(GET page STEM LAST_ONLY name)
  string(SUBSTRING "${section}" 1 -1 section)
  set(frame "${PROJECT_SOURCE_DIR}/packaging/man/${page}.in")
  set(made "${PROJECT_BINARY_DIR}/packaging/man/${page}")
  set(program)
  if(name MATCHES "^(tunnelctl|tunnel-agent)$")
    set(program "-DPROGRAM=$<TARGET_FILE:${name}>")
  endif()
  add_custom_command(OUTPUT "${made}"
                     COMMAND ${CMAKE_COMMAND} "-DIN=${frame}" "-DOUT=${made}" "-DVERSION=${PROJECT_VERSION}" ${program}
                             -P "${PROJECT_SOURCE_DIR}/cmake/ManualPage.cmake"
                     COMMAND gzip -9nkf "${made}"
                     DEPENDS "${frame}" "${PROJECT_SOURCE_DIR}/cmake/ManualPage.cmake" tunnel-agent tunnelctl
                     COMMENT "Manual page ${page}" VERBATIM)
  list(APPEND pages "${made}")
  install(FILES "${made}.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}" COMPONENT agent)
endforeach()
add_custom_target(manual ALL DEPENDS ${pages})

foreach(program tunnelctl tunnel-agent)
  install(FILES packaging/completion/tunnel-agent.bash DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
          RENAME ${program} COMPONENT agent)
endforeach()
install(FILES README.md CHANGELOG.md LICENSE DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT agent)
install(DIRECTORY docs examples DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT agent)
configure_file(cmake/InstallSystem.cmake.in "${PROJECT_BINARY_DIR}/InstallSystem.cmake" @ONLY)
install(SCRIPT "${PROJECT_BINARY_DIR}/InstallSystem.cmake" COMPONENT agent)

# The library. Its archives have short names, so they get a directory of their own.
set(floors Zol Quor Ipkit Fastlog Memtab Statehub runtime tunnel tunnel_table_sm)
set_property(TARGET ${floors} APPEND PROPERTY INTERFACE_COMPILE_FEATURES cxx_std_20)
install(TARGETS ${floors} EXPORT tunnel-agent ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}/tunnel-agent"
        COMPONENT development INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tunnel-agent")
install(DIRECTORY runtime tunnel tunnel_table_sm DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tunnel-agent"
        COMPONENT development FILES_MATCHING PATTERN "*.h")
set(package "${CMAKE_INSTALL_LIBDIR}/cmake/tunnel-agent")
install(EXPORT tunnel-agent FILE tunnel-agentConfig.cmake NAMESPACE tunnel-agent:: DESTINATION "${package}"
        COMPONENT development)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/tunnel-agentConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/tunnel-agentConfigVersion.cmake" DESTINATION "${package}" COMPONENT development)

include(Package)
install(FILES packaging/debian/copyright "${changelog}" DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT agent)
install(FILES packaging/debian/copyright "${changelog}"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/libtunnel-agent-dev" COMPONENT development)
