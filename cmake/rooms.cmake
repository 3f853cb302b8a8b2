# Compiler policy and the one way to declare a room (a folder and its target).

add_library(velprobe_policy INTERFACE)
target_compile_options(velprobe_policy INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror
  # No folder's name gets into what is built.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
target_compile_definitions(velprobe_policy INTERFACE
  _POSIX_C_SOURCE=200809L _DEFAULT_SOURCE
  VELPROBE_VERSION="${PROJECT_VERSION}")

if(VELPROBE_FUZZ)
  target_compile_options(velprobe_policy INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(VELPROBE_SANITIZE)
  target_compile_options(velprobe_policy INTERFACE
    -fsanitize=${VELPROBE_SANITIZE} -fno-sanitize-recover=all
    -fno-omit-frame-pointer
    # Instrumented library code looks uninitialised to g++.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(velprobe_policy INTERFACE
    -fsanitize=${VELPROBE_SANITIZE} -fno-sanitize-recover=all)
endif()

include(cmake/hardening.cmake)

# velprobe_room(NAME SOURCES file... [BENEATH room...])
#
# A static library of one folder that links only the rooms beneath it. A second
# link of the same objects, with nothing but those rooms in reach, fails the
# build when a room calls something above it or beside it.
function(velprobe_room name)
  cmake_parse_arguments(ROOM "" "" "SOURCES;BENEATH" ${ARGN})
  add_library(${name} STATIC ${ROOM_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ROOM_BENEATH} PRIVATE velprobe_policy)

  if(NOT VELPROBE_SANITIZE AND NOT VELPROBE_FUZZ)
    add_library(${name}_floor MODULE ${PROJECT_SOURCE_DIR}/cmake/floor.cpp)
    target_link_libraries(${name}_floor PRIVATE
      "$<LINK_LIBRARY:WHOLE_ARCHIVE,${name}>" ${ROOM_BENEATH})
    target_link_options(${name}_floor PRIVATE -Wl,--no-undefined)
  endif()
endfunction()
