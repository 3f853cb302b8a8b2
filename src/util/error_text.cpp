#include "error_text.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

namespace velprobe {

const char* format_error_text(const char* format, ...) {
  // Two in turn: the text being wrapped, an argument here, must outlive the
  // forming of the text that wraps it.
  thread_local std::array<char, kErrorTextSize> buffers[2];
  thread_local unsigned last_used = 1;

  last_used ^= 1;
  char* buffer = buffers[last_used].data();
  std::va_list arguments;
  va_start(arguments, format);
  // va_start is lost on the analyzer.
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
  std::vsnprintf(buffer, kErrorTextSize, format, arguments);
  va_end(arguments);
  return buffer;
}

int take_last_os_error() {
  return std::exchange(errno, 0);
}

const char* last_os_error_text() {
  return os_error_text(take_last_os_error());
}

ErrorText os_failure(const char* what) {
  const int error_number = take_last_os_error();
  return {format_error_text("%s: %s", what, os_error_text(error_number)),
          error_number};
}

const char* os_error_text(int error_number) {
  return std::strerror(error_number);
}

}  // namespace velprobe
