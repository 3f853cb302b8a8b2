#include "text_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "util/owners.h"
#include "util/text.h"
#include "wake_up.h"

namespace velprobe::check {
namespace {

constexpr std::size_t kMostBytes = std::size_t{64} << 20;

ErrorText reading_failed(const char* path, const char* why) {
  return format_error_text("Error reading %s: %s", path, why);
}

// Of a regular file, poll says that it is readable at any time.
ErrorText read_all(int file, const char* path, Deadline deadline,
                   std::string& text) {
  char buffer[16384];
  while (text.size() <= kMostBytes) {
    if (!wait_for_wake_up(deadline, file)) {
      if (stop_wanted()) return reading_failed(path, "interrupted");
      if (is_past(deadline)) return reading_failed(path, "no end in time");
      continue;
    }
    const ssize_t count = ::read(file, buffer, sizeof buffer);
    if (count == 0) return {};
    if (count > 0) {
      text.append(buffer, static_cast<std::size_t>(count));
    } else if (errno != EINTR && errno != EAGAIN) {
      return reading_failed(path, last_os_error_text());
    }
  }
  return reading_failed(path, "too long");
}

bool is_standard_input(const char* path) {
  return std::strcmp(path, "-") == 0;
}

}  // namespace

ErrorText read_text_file(const char* path, Deadline deadline,
                         std::string& out_text) {
  // Without O_NONBLOCK the opening of a pipe waits for its writer.
  const FileDescriptor file(
      ::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file) {
    return format_error_text("Error opening %s: %s", path,
                             last_os_error_text());
  }
  return read_all(file.get(), path, deadline, out_text);
}

ErrorText read_input(const char* path, Deadline deadline,
                     std::string& out_text) {
  if (!is_standard_input(path)) return read_text_file(path, deadline, out_text);
  return read_all(STDIN_FILENO, input_title(path), deadline, out_text);
}

const char* input_title(const char* path) {
  return is_standard_input(path) ? "standard input" : path;
}

std::size_t for_each_entry(
    std::string_view text,
    const std::function<bool(std::string_view entry)>& take) {
  text = without_mark(text);
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == text.npos ? text.size() : end + 1);
    const std::string_view entry = trimmed(line.substr(0, line.find('#')));
    if (!entry.empty() && !take(entry)) return number;
  }
  return 0;
}

}  // namespace velprobe::check
