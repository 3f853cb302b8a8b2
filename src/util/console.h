// Questions to the person at the console.
#ifndef VELPROBE_UTIL_CONSOLE_H_
#define VELPROBE_UTIL_CONSOLE_H_

#include <cstddef>

#include "error_text.h"

namespace velprobe {

// input_line prints prompt as it stands on standard output, flushes it, and
// reads one line of standard input into buffer: at most size - 1 characters,
// cut before its line feed or carriage return, always ended by a NUL. The
// unread rest of a longer line becomes the next answer.
//
// Failure: "fgets returned error", also at the end of input.
ErrorText input_line(char* buffer, std::size_t size, const char* prompt);

// input_line_noecho asks on the controlling terminal, with echo and the signal
// keys off while the answer is typed, for what must not appear on the screen.
// buffer must hold length + 1 bytes: an answer of up to length bytes, cut
// before its line feed or carriage return, and a NUL. What was typed ahead, and
// the rest of a longer line, is discarded. The terminal gets its old settings
// back before the call returns; a signal that ends the process leaves it
// silent.
//
// Failures: "Error opening /dev/tty", "tcgetattr returned error", "tcsetattr
// returned error", "write returned error", "read returned error", "read
// returned 0", "close returned error".
ErrorText input_line_noecho(char* buffer, std::size_t length,
                            const char* prompt);

}  // namespace velprobe

#endif  // VELPROBE_UTIL_CONSOLE_H_
