#include "agent_config.h"

#include <cerrno>
#include <cstdio>

#include "../util/console.h"
#include "assignments.h"
#include "config_file.h"
#include "config_paths.h"
#include "config_rewrite.h"

namespace velprobe {
namespace {

// For a yes or no and what else fits.
constexpr std::size_t kAnswerSize = 8;

// offer_creation settles what becomes of a file that could not be opened:
// success when it is missing and the user wants a new one.
ErrorText offer_creation(const char* path, int open_error) {
  if (open_error != ENOENT) return could_not_open(path, open_error);
  std::printf("The configuration file %s does not seem to exist, create one? ",
              path);
  char answer[kAnswerSize];
  if (ErrorText error = input_line(answer, sizeof answer, "(y/n) ")) {
    return format_error_text("Error from input_line: %s", error.c_str());
  }
  return answer[0] == 'y' ? ErrorText() : could_not_open(path, open_error);
}

ErrorText read_config_file(const char* path, ConfigKey* keys) {
  ByteBuffer bytes;
  int open_error = 0;
  if (ErrorText error =
          read_config_bytes(open_config_paths(path), bytes, open_error)) {
    return error;
  }
  if (open_error != 0) return offer_creation(path, open_error);
  return take_values(bytes.view(), keys);
}

}  // namespace

ErrorText process_config_file(const char* path, ConfigKey* keys,
                              ConfigMode mode) {
  return mode == ConfigMode::kRead ? read_config_file(path, keys)
                                   : rewrite_config_file(path, keys);
}

}  // namespace velprobe
