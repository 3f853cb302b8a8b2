// One line of output, built piece by piece from texts that may be hostile.
#ifndef VELPROBE_STANDIN_LINE_H_
#define VELPROBE_STANDIN_LINE_H_

#include <string_view>

#include "util/byte_buffer.h"

namespace velprobe::standin {

// Line grows as pieces are added. Once memory was short it takes no more, and
// is_whole is false.
class Line {
 public:
  // add takes a piece as it is: for texts of this program only.
  void add(std::string_view piece);
  // add_format formats as printf does, at most 255 characters.
  [[gnu::format(printf, 2, 3)]] void add_format(const char* format, ...);
  // add_quoted adds a text of unknown origin in quotes, fit for a terminal and
  // unable to forge what follows it: control bytes are "?", quotes and
  // backslashes have a backslash in front, and characters that change the
  // direction or the line are named, as in \u202E. Null is an empty text.
  void add_quoted(const char* text);
  // add_json adds it as a string of JSON (RFC 8259). The same characters are
  // escaped; a byte that is no UTF-8 becomes U+FFFD.
  void add_json(const char* text);

  bool is_whole() const { return is_whole_; }
  std::string_view view() const { return bytes_.view(); }

 private:
  ByteBuffer bytes_;
  bool is_whole_ = true;
};

}  // namespace velprobe::standin

#endif  // VELPROBE_STANDIN_LINE_H_
