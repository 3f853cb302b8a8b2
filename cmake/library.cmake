# libvelprobe: the rooms beneath the program as one library, shared and static,
# for authors of agents, servers and tools.

set(library_rooms util net modules/Crypto protocol probe)
set(library_targets velprobe_util velprobe_net velprobe_crypto
  velprobe_protocol velprobe_probe)
# What only the rooms themselves include: neither installed nor visible.
set(internal_headers address_set aes_block byte_order crypto_assert limb_pairs
  standard_streams system_socket wipe)
list(TRANSFORM library_targets REPLACE "(.+)" "$<TARGET_OBJECTS:\\1>"
  OUTPUT_VARIABLE library_objects)

# The soname's number changes with every release that breaks a caller.
set(VELPROBE_SOVERSION 0)

add_library(velprobe_shared SHARED ${library_objects})
add_library(velprobe_static STATIC ${library_objects})
set_target_properties(velprobe_shared velprobe_static PROPERTIES
  OUTPUT_NAME velprobe LINKER_LANGUAGE CXX)
set_target_properties(velprobe_shared PROPERTIES
  EXPORT_NAME velprobe
  VERSION ${PROJECT_VERSION} SOVERSION ${VELPROBE_SOVERSION})
target_link_libraries(velprobe_shared PRIVATE velprobe_policy)
target_link_options(velprobe_shared PRIVATE -Wl,--no-undefined)
foreach(library velprobe_shared velprobe_static)
  target_include_directories(${library} INTERFACE
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(${library} INTERFACE cxx_std_20)
endforeach()

list(JOIN internal_headers | internal_pattern)
foreach(room IN LISTS library_rooms)
  file(GLOB headers CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/src/${room}/*.h ${PROJECT_SOURCE_DIR}/src/${room}/*.def)
  list(FILTER headers EXCLUDE REGEX "/(${internal_pattern})\\.h$")
  install(FILES ${headers} COMPONENT development
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velprobe/${room})
endforeach()
