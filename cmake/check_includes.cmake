# Run by the build for one room, with lists of absolute paths:
#
#   FILES    all its files
#   FOLDERS  its folder and those of the rooms beneath it
#   HEADERS  what it shows to users of the library
#   SHOWN    what the rooms beneath it show
#   ROOT     what includes are relative to, beside the file's own folder
#
# Every include between quotes leads into one of FOLDERS, what is shown needs
# nothing that is not, and exactly what is shown is visible in the library.

cmake_minimum_required(VERSION 3.25)

set(faults)
foreach(file IN LISTS FILES)
  cmake_path(GET file PARENT_PATH folder)
  file(STRINGS ${file} lines REGEX "^ *# *include +\"")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[^\"]*\"([^\"]*)\".*" "\\1" name "${line}")
    cmake_path(ABSOLUTE_PATH name BASE_DIRECTORY ${folder} NORMALIZE
      OUTPUT_VARIABLE path)
    if(NOT EXISTS ${path})
      cmake_path(ABSOLUTE_PATH name BASE_DIRECTORY ${ROOT} NORMALIZE
        OUTPUT_VARIABLE path)
    endif()
    cmake_path(GET path PARENT_PATH target_folder)
    if(NOT target_folder IN_LIST FOLDERS)
      list(APPEND faults "${file}: \"${name}\" is in no room beneath this one")
    elseif(file IN_LIST HEADERS AND NOT path IN_LIST HEADERS
        AND NOT path IN_LIST SHOWN)
      list(APPEND faults "${file}: is shown to users, \"${name}\" is not")
    endif()
  endforeach()

  if(file MATCHES "\\.h$")
    file(STRINGS ${file} visible REGEX "visibility push\\(default\\)")
    if(visible AND NOT file IN_LIST HEADERS)
      list(APPEND faults "${file}: is visible but not one of HEADERS")
    elseif(NOT visible AND file IN_LIST HEADERS)
      list(APPEND faults "${file}: is one of HEADERS but not visible")
    endif()
  endif()
endforeach()

if(faults)
  list(JOIN faults "\n" faults)
  message(FATAL_ERROR "${faults}")
endif()
