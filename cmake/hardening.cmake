# What optimised builds do beyond the code's own checks, so that a fault in it
# is harder to use; scripts/check_hardening.sh proves it of the programs.

include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

set(optimised "$<NOT:$<CONFIG:Debug>>")
target_compile_options(velprobe_policy INTERFACE
  "$<${optimised}:-fstack-protector-strong;-fstack-clash-protection>")
target_link_options(velprobe_policy INTERFACE
  "$<${optimised}:LINKER:-z,relro,-z,now,-z,noexecstack>")
# The sanitizers check the same calls more closely themselves.
if(NOT VELPROBE_SANITIZE)
  target_compile_options(velprobe_policy INTERFACE
    "$<${optimised}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
endif()
