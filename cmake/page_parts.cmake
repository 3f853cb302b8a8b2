# velprobe_page_parts(TARGET STYLE SCRIPT)
#
# Adds to TARGET what page_parts.h declares: style and script of the page as
# texts, and the hashes by which its Content-Security-Policy allows these two
# and nothing else.
function(velprobe_page_parts target style script)
  set(parts "#include \"page_parts.h\"\n\nnamespace velprobe::check {\n")
  foreach(part IN ITEMS "Style;${style}" "Script;${script}")
    list(GET part 0 name)
    list(GET part 1 file)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
      ${CMAKE_CURRENT_SOURCE_DIR}/${file})
    file(READ ${file} text)
    string(SHA256 hash "${text}")
    velprobe_base64(${hash} hash)
    string(APPEND parts
      "const char k${name}[] = R\"part(${text})part\";\n"
      "const char k${name}Hash[] = \"sha256-${hash}\";\n")
  endforeach()
  string(APPEND parts "}  // namespace velprobe::check\n")
  set(made ${CMAKE_CURRENT_BINARY_DIR}/page_parts.cpp)
  file(CONFIGURE OUTPUT ${made} CONTENT "@parts@" @ONLY)
  target_sources(${target} PRIVATE ${made})
  target_include_directories(${target} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
endfunction()

# velprobe_base64(HEX OUT) turns the 64 hexadecimal digits of a hash into Base64
# (RFC 4648, section 4).
function(velprobe_base64 hex out)
  set(alphabet
    ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/)
  set(text "")
  # The last group lacks a byte, for which "=" stands.
  string(APPEND hex "00")
  foreach(group RANGE 10)
    math(EXPR at "${group} * 6")
    string(SUBSTRING ${hex} ${at} 6 digits)
    foreach(shift IN ITEMS 18 12 6 0)
      math(EXPR index "(0x${digits} >> ${shift}) & 63")
      string(SUBSTRING ${alphabet} ${index} 1 letter)
      string(APPEND text ${letter})
    endforeach()
  endforeach()
  string(SUBSTRING "${text}" 0 43 text)
  set(${out} "${text}=" PARENT_SCOPE)
endfunction()
