// What tests of streams and failures share: streams over given bytes, and the
// texts of failures to compare.
#ifndef VELPROBE_TESTS_STREAMS_H_
#define VELPROBE_TESTS_STREAMS_H_

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "protocol/memory_stream.h"
#include "util/error_text.h"

namespace velprobe {

// text_of gives a failure's text, nothing on success.
inline std::string text_of(ErrorText error) {
  return error ? error.c_str() : "";
}

inline BerStreamPtr stream_of(std::string_view bytes = {}) {
  BerStreamPtr stream;
  EXPECT_FALSE(memory_stream_open(stream, bytes));
  return stream;
}

}  // namespace velprobe

#endif  // VELPROBE_TESTS_STREAMS_H_
