# The install tree, in three components: the programs, the shared library, and
# what it takes to develop with it.

include(CMakePackageConfigHelpers)

get_property(programs GLOBAL PROPERTY VELPROBE_PROGRAMS)
install(TARGETS ${programs} COMPONENT programs)
install(TARGETS velprobe_shared EXPORT velprobe
  LIBRARY COMPONENT library NAMELINK_COMPONENT development
  FILE_SET HEADERS COMPONENT development
  FILE_SET lists COMPONENT development
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS velprobe_static EXPORT velprobe COMPONENT development
  FILE_SET HEADERS COMPONENT development
  FILE_SET lists COMPONENT development
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/velprobe)
install(EXPORT velprobe FILE velprobeTargets.cmake NAMESPACE velprobe::
  DESTINATION ${config_dir} COMPONENT development)
configure_package_config_file(
  cmake/velprobeConfig.cmake.in velprobeConfig.cmake
  INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(velprobeConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/velprobeConfig.cmake
  ${PROJECT_BINARY_DIR}/velprobeConfigVersion.cmake
  DESTINATION ${config_dir} COMPONENT development)

# The prefix is known only when it is installed. A tree that has moved since
# is found with pkg-config --define-prefix.
set(pc_prefix "@CMAKE_INSTALL_PREFIX@")
configure_file(cmake/velprobe.pc.in velprobe.pc.in @ONLY)
install(CODE "configure_file(\"${PROJECT_BINARY_DIR}/velprobe.pc.in\"
    \"${PROJECT_BINARY_DIR}/velprobe.pc\" @ONLY)" COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/velprobe.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

include(cmake/manual.cmake)

install(FILES CHANGELOG.md docs/agent.conf.sample docs/troubleshooting.md
  docs/rehearsal.md docs/velcheck.schema.json docs/fleet.md docs/fleet.png
  tools/wireshark/velprobe.lua
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT programs)
install(FILES packaging/velstandin.service
  DESTINATION lib/systemd/system COMPONENT programs)
install(FILES docs/protocol.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
install(DIRECTORY examples
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
  PATTERN fleet EXCLUDE)
install(DIRECTORY examples/fleet
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT programs
  PATTERN results EXCLUDE)

set(VELPROBE_ZSH_COMPLETION_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions
  CACHE STRING "Folder of zsh completion functions")
install(FILES tools/completion/velprobe tools/completion/velstandin
  tools/completion/velcheck
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
  COMPONENT programs)
install(FILES tools/completion/_velprobe
  DESTINATION ${VELPROBE_ZSH_COMPLETION_DIR} COMPONENT programs)
