# What optimised builds do beyond the code's own checks, so that a fault in it
# is harder to use; scripts/check_hardening.sh proves it of the programs.

include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

set(optimised "$<NOT:$<CONFIG:Debug>>")
target_compile_options(velprobe_policy INTERFACE
  "$<${optimised}:-fstack-protector-strong;-fstack-clash-protection>")
target_link_options(velprobe_policy INTERFACE
  "$<${optimised}:LINKER:-z,relro,-z,now,-z,noexecstack>")

# Jumps and returns that the processor checks; other processors have no such
# option.
check_cxx_compiler_flag(-fcf-protection VELPROBE_HAVE_CF_PROTECTION)
if(VELPROBE_HAVE_CF_PROTECTION)
  target_compile_options(velprobe_policy INTERFACE
    "$<${optimised}:-fcf-protection>")
endif()

# The sanitizers check the same calls more closely themselves. Level 3 also
# knows sizes that are computed; compiler and C library have to know it both.
if(NOT VELPROBE_SANITIZE)
  set(CMAKE_REQUIRED_FLAGS "-O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
  check_cxx_source_compiles("#include <cstdlib>
    #if __USE_FORTIFY_LEVEL < 3
    #error
    #endif
    int main() {}" VELPROBE_HAVE_FORTIFY_3)
  unset(CMAKE_REQUIRED_FLAGS)
  set(level $<IF:$<BOOL:${VELPROBE_HAVE_FORTIFY_3}>,3,2>)
  target_compile_options(velprobe_policy INTERFACE
    "$<${optimised}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=${level}>")
endif()
