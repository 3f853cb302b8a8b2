# The manual pages: those of docs/man, whose footers name the version, and one
# that is made of a page in Markdown.

function(install_manual_page name)
  string(REGEX MATCH "[1-8]$" section ${name})
  set(component programs)
  if(section EQUAL 3)
    set(component development)
  endif()
  install(FILES ${PROJECT_BINARY_DIR}/man/${name} COMPONENT ${component}
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endfunction()

set(manual_folder ${PROJECT_SOURCE_DIR}/docs/man)
file(GLOB pages RELATIVE ${manual_folder} CONFIGURE_DEPENDS
  ${manual_folder}/*.[1-8])
foreach(page IN LISTS pages)
  configure_file(${manual_folder}/${page} man/${page} @ONLY)
  install_manual_page(${page})
endforeach()

set(script ${manual_folder}/troubleshooting.awk)
set(source ${PROJECT_SOURCE_DIR}/docs/troubleshooting.md)
set(page velprobe-troubleshooting.7)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  ${script} ${source})
execute_process(
  COMMAND awk -v version=${PROJECT_VERSION} -f ${script} ${source}
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/man/${page} COMMAND_ERROR_IS_FATAL ANY)
install_manual_page(${page})
