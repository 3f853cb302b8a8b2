#include "assignments.h"

#include <algorithm>
#include <utility>

namespace velprobe {
namespace {

constexpr std::size_t kMaxLineLength = 511;

// take_line cuts the line at the walk's position off the file, empty at the
// end.
std::string_view take_line(AssignmentWalk* walk) {
  const std::string_view window =
      walk->file.substr(walk->position, kMaxLineLength);
  const std::size_t feed = window.find('\n');
  const std::size_t length = feed == window.npos ? window.size() : feed + 1;
  walk->position += length;
  return window.substr(0, length);
}

ConfigKey* find_key(ConfigKey* keys, std::string_view name) {
  for (ConfigKey* key = keys; key != nullptr; key = key->next) {
    if (name == key->key) return key;
  }
  return nullptr;
}

bool is_line_end(char c) {
  return c == '\r' || c == '\n';
}

// value_in gives the value of a line behind its "=". A NUL ends the line, as it
// ends a text; what follows belongs to the line's ending.
std::string_view value_in(std::string_view rest) {
  std::size_t end = std::min(rest.size(), rest.find('\0'));
  while (end > 0 && is_line_end(rest[end - 1])) --end;
  std::size_t begin = 0;
  while (begin < end && is_white_space(rest[begin]) &&
         !is_line_end(rest[begin])) {
    ++begin;
  }
  return rest.substr(begin, end - begin);
}

}  // namespace

bool next_assignment(AssignmentWalk* walk, Assignment* out) {
  for (;;) {
    const std::string_view line = take_line(walk);
    if (line.empty()) return false;
    const std::size_t equals = line.find('=');
    if (equals == line.npos) continue;
    // No known key begins with "#", so a comment finds none.
    ConfigKey* key = find_key(walk->keys, trimmed(line.substr(0, equals)));
    if (key == nullptr) continue;

    const std::string_view value = value_in(line.substr(equals + 1));
    out->key = key;
    out->value_begin =
        static_cast<std::size_t>(value.data() - walk->file.data());
    out->value_end = out->value_begin + value.size();
    return true;
  }
}

ErrorText take_values(std::string_view file, ConfigKey* keys) {
  AssignmentWalk walk{file, keys};
  for (Assignment assignment; next_assignment(&walk, &assignment);) {
    const std::size_t length = assignment.value_end - assignment.value_begin;
    Text value = copy_text(file.substr(assignment.value_begin, length));
    if (!value) return kNoMemory;
    assignment.key->value = std::move(value);
  }
  return {};
}

}  // namespace velprobe
