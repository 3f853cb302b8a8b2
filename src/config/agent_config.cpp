#include "agent_config.h"

#include <cerrno>
#include <cstdio>

#include "../util/console.h"
#include "assignments.h"
#include "config_file.h"
#include "config_rewrite.h"

namespace velprobe {
namespace {

// Room for a yes or no.
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
  LoadedFile file;
  if (ErrorText error = load_config_file(path, FileUse::kRead, &file))
    return error;
  if (file.open_error != 0) return offer_creation(path, file.open_error);
  if (ErrorText error = take_values(file.bytes.view(), keys)) return error;
  // Of a rewrite that is going on they may be all there is.
  if (file.is_locked) delete_side_files(name_side_files(path));
  return {};
}

}  // namespace

ErrorText process_config_file(const char* path, ConfigKey* keys,
                              ConfigMode mode) {
  return mode == ConfigMode::kRead ? read_config_file(path, keys)
                                   : rewrite_config_file(path, keys);
}

}  // namespace velprobe
