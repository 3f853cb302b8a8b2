# Run by CPack on the staged trees: what Debian asks of the documentation of
# each package, beyond the install tree.

file(GLOB manual_pages LIST_DIRECTORIES false
  ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/man/man*/*)
foreach(page IN LISTS manual_pages)
  execute_process(COMMAND gzip -9n ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()

# The newest section of the changelog in Debian's form. TIMESTAMP follows
# SOURCE_DATE_EPOCH.
set(version ${CPACK_PACKAGE_VERSION})
file(READ ${CPACK_VELPROBE_SOURCE_DIR}/CHANGELOG.md changes)
string(REGEX REPLACE ".*\n## ${version}\n+" "" changes "${changes}")
string(REGEX REPLACE "\n## .*" "\n" changes "${changes}")
string(STRIP "${changes}" changes)
string(REPLACE "\n" "\n  " changes "\n${changes}")
string(REPLACE "\n  - " "\n  * " changes "${changes}")
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(docs ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}/usr/share/doc)
  set(doc ${docs}/${package})
  # Debian has one folder a package, the install tree one for them all.
  if(EXISTS ${docs}/velprobe AND NOT package STREQUAL "velprobe")
    file(RENAME ${docs}/velprobe ${doc})
  endif()
  file(REMOVE ${doc}/CHANGELOG.md)
  configure_file(${CPACK_VELPROBE_SOURCE_DIR}/packaging/copyright
    ${doc}/copyright COPYONLY)
  file(WRITE ${doc}/changelog
    "velprobe (${version}) unstable; urgency=medium\n${changes}\n\n"
    " -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
  execute_process(COMMAND gzip -9n ${doc}/changelog COMMAND_ERROR_IS_FATAL ANY)
endforeach()
