# Debian packages, one a component; scripts/build_packages.sh builds them.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "velprobe developers")
set(CPACK_PACKAGE_CONTACT "velprobe developers <developers@velprobe.example>")
# Each description begins with its own summary.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL programs library development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/debian_docs.cmake)
set(CPACK_VELPROBE_SOURCE_DIR ${PROJECT_SOURCE_DIR})

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME velprobe)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION net)
set(CPACK_COMPONENT_PROGRAMS_DESCRIPTION
"check whether Veltra servers accept this host's agent
velprobe opens the agent protocol to every Veltra server that the monitoring
agent of this host is configured for, and reports which of them accept it. It
can find servers on the local networks and write them into the configuration.
.
velstandin stands in for a server, for rehearsals and firewall checks.")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libvelprobe${VELPROBE_SOVERSION})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
"Veltra agent protocol, shared library
The library writes and reads every message of the Veltra agent protocol, over
TCP or in memory, probes servers and finds them.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvelprobe-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libvelprobe${VELPROBE_SOVERSION} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
"Veltra agent protocol, development files
The library writes and reads every message of the Veltra agent protocol, over
TCP or in memory, probes servers and finds them. This package holds headers,
the static library and files for CMake and pkg-config.")

include(CPack)
