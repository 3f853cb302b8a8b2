#include "console.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "owners.h"

namespace velprobe {
namespace {

void cut_line_end(char* answer) {
  answer[std::strcspn(answer, "\r\n")] = '\0';
}

bool write_whole(int terminal, std::string_view text) {
  const ssize_t written = ::write(terminal, text.data(), text.size());
  return written == static_cast<ssize_t>(text.size());
}

ErrorText ask(int terminal, char* buffer, std::size_t length,
              const char* prompt) {
  if (!write_whole(terminal, prompt)) return "write returned error";
  const ssize_t answer_len = ::read(terminal, buffer, length);
  if (answer_len < 0) return "read returned error";
  if (answer_len == 0) return "read returned 0";
  buffer[answer_len] = '\0';
  cut_line_end(buffer);
  // The user's own line end was not echoed.
  if (!write_whole(terminal, "\n")) return "write returned error";
  return {};
}

}  // namespace

ErrorText input_line(char* buffer, std::size_t size, const char* prompt) {
  std::fputs(prompt, stdout);
  std::fflush(stdout);
  const std::size_t limit = std::min<std::size_t>(size, INT_MAX);
  if (std::fgets(buffer, static_cast<int>(limit), stdin) == nullptr) {
    return "fgets returned error";
  }
  cut_line_end(buffer);
  return {};
}

ErrorText input_line_noecho(char* buffer, std::size_t length,
                            const char* prompt) {
  FileDescriptor terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC));
  if (!terminal) return "Error opening /dev/tty";

  termios saved;
  if (::tcgetattr(terminal.get(), &saved) != 0) {
    return "tcgetattr returned error";
  }
  termios silent = saved;
  silent.c_lflag |= ICANON;
  silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
  if (::tcsetattr(terminal.get(), TCSAFLUSH, &silent) != 0) {
    return "tcsetattr returned error";
  }

  const ErrorText result = ask(terminal.get(), buffer, length, prompt);
  if (::tcsetattr(terminal.get(), TCSAFLUSH, &saved) != 0) {
    return "tcsetattr returned error";
  }
  if (::close(terminal.release()) != 0) return "close returned error";
  return result;
}

}  // namespace velprobe
