# libvelprobe: every room that shows something as one library, shared and
# static, for authors of agents, servers and tools.

# The soname's number changes with every release that breaks a caller
# (docs/design/abi.md).
set(VELPROBE_SOVERSION 1)

# What users include is <velprobe/room/header.h>, in this tree as when
# installed.
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/include)
file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src
  ${PROJECT_BINARY_DIR}/include/velprobe SYMBOLIC)

get_property(library_rooms GLOBAL PROPERTY VELPROBE_LIBRARY_ROOMS)
foreach(room IN LISTS library_rooms)
  list(APPEND library_objects $<TARGET_OBJECTS:${room}>)
  get_target_property(headers ${room} VELPROBE_HEADERS)
  list(APPEND library_headers ${headers})
endforeach()
list(TRANSFORM library_headers REPLACE
  "^${PROJECT_SOURCE_DIR}/src" "${PROJECT_BINARY_DIR}/include/velprobe")
# Lists that headers include are headers too, but do not stand alone.
set(library_lists ${library_headers})
list(FILTER library_lists INCLUDE REGEX "\\.def$")
list(FILTER library_headers EXCLUDE REGEX "\\.def$")

add_library(velprobe_shared SHARED ${library_objects})
add_library(velprobe_static STATIC ${library_objects})
foreach(library velprobe_shared velprobe_static)
  set_target_properties(${library} PROPERTIES
    OUTPUT_NAME velprobe LINKER_LANGUAGE CXX
    INTERFACE_HEADER_SETS_TO_VERIFY HEADERS)
  target_compile_features(${library} INTERFACE cxx_std_20)
  # In this tree what includes a header is held to this tree's warnings.
  target_link_libraries(${library} INTERFACE $<BUILD_INTERFACE:velprobe_policy>)
  target_sources(${library}
    INTERFACE FILE_SET HEADERS
      BASE_DIRS ${PROJECT_BINARY_DIR}/include FILES ${library_headers}
    INTERFACE FILE_SET lists TYPE HEADERS
      BASE_DIRS ${PROJECT_BINARY_DIR}/include FILES ${library_lists})
endforeach()

# Visibility says what is exported, the version script under which version, and
# that nothing of the standard library's templates is.
configure_file(${PROJECT_SOURCE_DIR}/cmake/libvelprobe.map.in
  ${PROJECT_BINARY_DIR}/libvelprobe.map @ONLY)
set_target_properties(velprobe_shared PROPERTIES
  EXPORT_NAME velprobe
  VERSION ${PROJECT_VERSION} SOVERSION ${VELPROBE_SOVERSION}
  VERIFY_INTERFACE_HEADER_SETS ON
  LINK_DEPENDS ${PROJECT_BINARY_DIR}/libvelprobe.map)
target_link_libraries(velprobe_shared PRIVATE velprobe_policy)
target_link_options(velprobe_shared PRIVATE -Wl,--no-undefined
  -Wl,--version-script=${PROJECT_BINARY_DIR}/libvelprobe.map)

# As find_package names them.
add_library(velprobe::velprobe ALIAS velprobe_shared)
add_library(velprobe::velprobe_static ALIAS velprobe_static)
