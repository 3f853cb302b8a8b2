# Compiler policy and the one way to declare a room (a folder and its target) or
# a program made of rooms.

add_library(velprobe_policy INTERFACE)
target_compile_options(velprobe_policy INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<BOOL:${VELPROBE_WERROR}>:-Werror>
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

# Nothing is thrown and no type is asked for at run time: whoever tries does not
# compile.
add_library(velprobe_nothing_thrown INTERFACE)
target_compile_options(velprobe_nothing_thrown INTERFACE
  -fno-exceptions -fno-rtti)

# velprobe_room(NAME SOURCES file... [HEADERS file...] [BENEATH room...]
#               [EXCEPTIONS])
#
# A static library of one folder that links only the rooms BENEATH it. HEADERS
# are what it shows to users of libvelprobe, and a room that shows something is
# part of that library. EXCEPTIONS lets it use what throws.
#
# Two things fail the build when a room looks or reaches above or beside it:
# check_includes.cmake for what it includes, and a second link of the same
# objects, with nothing but the rooms beneath it in reach, for what it calls.
function(velprobe_room name)
  cmake_parse_arguments(PARSE_ARGV 1 ROOM
    "EXCEPTIONS" "" "SOURCES;HEADERS;BENEATH")
  add_library(${name} STATIC ${ROOM_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  velprobe_link_beneath(${name})
  target_link_libraries(${name} PUBLIC ${ROOM_BENEATH})

  list(TRANSFORM ROOM_HEADERS PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  set_target_properties(${name} PROPERTIES
    VELPROBE_FOLDER ${CMAKE_CURRENT_SOURCE_DIR}
    VELPROBE_HEADERS "${ROOM_HEADERS}")
  velprobe_check_includes(${name} "${ROOM_BENEATH}")
  if(ROOM_HEADERS)
    set_property(GLOBAL APPEND PROPERTY VELPROBE_LIBRARY_ROOMS ${name})
  endif()

  if(NOT VELPROBE_SANITIZE AND NOT VELPROBE_FUZZ)
    add_library(${name}_floor MODULE ${PROJECT_SOURCE_DIR}/cmake/floor.cpp)
    target_link_libraries(${name}_floor PRIVATE
      "$<LINK_LIBRARY:WHOLE_ARCHIVE,${name}>" ${ROOM_BENEATH})
    target_link_options(${name}_floor PRIVATE -Wl,--no-undefined)
  endif()
endfunction()

# velprobe_program(NAME SOURCES file... BENEATH room... [EXCEPTIONS])
#
# A program that is installed. libc is the only library left to load: start-up
# is most of a short run. One in a folder of its own is held to the rooms
# BENEATH it as a room is.
function(velprobe_program name)
  cmake_parse_arguments(PARSE_ARGV 1 ROOM "EXCEPTIONS" "" "SOURCES;BENEATH")
  add_executable(${name} ${ROOM_SOURCES})
  velprobe_link_beneath(${name})
  target_link_libraries(${name} PRIVATE ${ROOM_BENEATH})
  target_link_options(${name} PRIVATE -static-libstdc++ -static-libgcc)
  set_property(GLOBAL APPEND PROPERTY VELPROBE_PROGRAMS ${name})

  foreach(room IN LISTS ROOM_BENEATH)
    get_property(folder TARGET ${room} PROPERTY VELPROBE_FOLDER)
    if(folder STREQUAL CMAKE_CURRENT_SOURCE_DIR)
      return()
    endif()
  endforeach()
  velprobe_check_includes(${name} "${ROOM_BENEATH}")
endfunction()

macro(velprobe_link_beneath name)
  target_link_libraries(${name} PRIVATE velprobe_policy)
  if(NOT ROOM_EXCEPTIONS)
    target_link_libraries(${name} PRIVATE velprobe_nothing_thrown)
  endif()
endmacro()

# A step of the build that reads every file of the folder anew when one of them
# changed.
function(velprobe_check_includes name beneath)
  set(stamp ${CMAKE_CURRENT_BINARY_DIR}/${name}_includes)
  file(GLOB files CONFIGURE_DEPENDS *.cpp *.h *.def)
  set(folders ${CMAKE_CURRENT_SOURCE_DIR})
  set(shown)
  foreach(room IN LISTS beneath)
    # A library from elsewhere has no folder here.
    get_property(folder TARGET ${room} PROPERTY VELPROBE_FOLDER)
    get_property(headers TARGET ${room} PROPERTY VELPROBE_HEADERS)
    list(APPEND folders ${folder})
    list(APPEND shown ${headers})
  endforeach()
  get_property(headers TARGET ${name} PROPERTY VELPROBE_HEADERS)
  add_custom_command(OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} "-DFILES=${files}" "-DFOLDERS=${folders}"
      "-DHEADERS=${headers}" "-DSHOWN=${shown}"
      -DROOT=${PROJECT_SOURCE_DIR}/src
      -P ${PROJECT_SOURCE_DIR}/cmake/check_includes.cmake
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${files} ${PROJECT_SOURCE_DIR}/cmake/check_includes.cmake
    COMMENT "Includes of ${name}" VERBATIM)
  target_sources(${name} PRIVATE ${stamp})
endfunction()
