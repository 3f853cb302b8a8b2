// Where the result goes: a descriptor, or a file that is replaced whole.
#ifndef VELPROBE_CHECK_OUTPUT_H_
#define VELPROBE_CHECK_OUTPUT_H_

#include <string_view>

#include "util/error_text.h"

namespace velprobe::check {

// write_all writes all of text. False when the system refuses; errno tells.
[[nodiscard]] bool write_all(int descriptor, std::string_view text);

// replace_file gives the file at path the text as its whole content: readers
// see the old file or the new one. It is written beside the old one, flushed to
// the disk and put in its place with the same permissions and, where the
// process may, owner and group; a new one gets what the umask leaves of 0666.
// Of a symbolic link the file behind it is replaced, unless there is none or
// somebody else made the link in a shared folder such as /tmp; standard output
// and what is no regular file (a device, a pipe) are written to as they are.
//   "Error opening %s: %s", "Error writing to %s: %s"; a failure leaves the old
//   file as it was.
ErrorText replace_file(const char* path, std::string_view text);

}  // namespace velprobe::check

#endif  // VELPROBE_CHECK_OUTPUT_H_
