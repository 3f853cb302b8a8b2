// Files with one entry per line.
#ifndef VELPROBE_CHECK_TEXT_FILE_H_
#define VELPROBE_CHECK_TEXT_FILE_H_

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "util/deadline.h"
#include "util/error_text.h"

namespace velprobe::check {

// read_text_file reads all of the file at path, up to 64 MiB. What is a pipe or
// a terminal is read until its end, the deadline or a signal that asks to stop.
//   "Error opening %s: %s", "Error reading %s: %s"
ErrorText read_text_file(const char* path, Deadline deadline,
                         std::string& out_text);

// read_input reads the file at path, or standard input for "-", in the same
// way.
ErrorText read_input(const char* path, Deadline deadline,
                     std::string& out_text);

// input_title is how to speak of what read_input reads: "standard input" for
// "-", else the path.
const char* input_title(const char* path);

// for_each_entry calls take with each line that holds something, without the
// white space around it and without what "#" begins, nor the mark that some
// editors put in front of UTF-8. It stops at the first line
// for which take is false and gives its number, from 1; else 0.
std::size_t for_each_entry(
    std::string_view text,
    const std::function<bool(std::string_view entry)>& take);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_TEXT_FILE_H_
