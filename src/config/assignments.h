// Finding the assignments of known keys in the bytes of a configuration file.
#ifndef VELPROBE_CONFIG_ASSIGNMENTS_H_
#define VELPROBE_CONFIG_ASSIGNMENTS_H_

#include <cstddef>
#include <string_view>

#include "../util/error_text.h"
#include "config_keys.h"

namespace velprobe {

// Assignment is one line that assigns a known key. The value's bytes are
// [value_begin, value_end) of the file.
struct Assignment {
  ConfigKey* key;
  std::size_t value_begin;
  std::size_t value_end;
};

// AssignmentWalk goes through a file once, from front to back. It borrows the
// file's bytes and the list of keys.
struct AssignmentWalk {
  std::string_view file;
  ConfigKey* keys;
  std::size_t position = 0;
};

// next_assignment moves the walk behind the next line that assigns a known key
// and describes it. False at the end of the file.
bool next_assignment(AssignmentWalk* walk, Assignment* out);

// take_values sets the value of each of keys that the file assigns; the last
// line with a key counts.
//
// Failure: "Out of memory".
ErrorText take_values(std::string_view file, ConfigKey* keys);

}  // namespace velprobe

#endif  // VELPROBE_CONFIG_ASSIGNMENTS_H_
